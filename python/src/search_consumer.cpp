#include "search_consumer.hpp"

#include "arguments.hpp"
#include "documents.hpp"
#include "exceptions.hpp"
#include "interpreter.hpp"
#include "records.hpp"

namespace tidalcrest::sync::python {
namespace {

constexpr const char* UNIVERSE_ATTRIBUTES[] = {"named_universe", "_named_universe", "universe", "_universe"};

}  // namespace

bool PythonSearchConsumer::takes_refreshes() const {
  const Locked locked;
  return calling_python(
      [&] { return !attribute_or(_consumer.get(), "refresh_rotation_scope", py::none()).is_none(); });
}

std::optional<std::string> PythonSearchConsumer::named_universe() const {
  const Locked locked;
  return calling_python([&]() -> std::optional<std::string> {
    for (const char* name : UNIVERSE_ATTRIBUTES) {
      const py::object value = attribute_or(_consumer.get(), name, py::none());
      if (value.is_none()) continue;
      const py::object universe = py::str(value).attr("strip")();
      if (py::len(universe) > 0) return text_from_python(universe);
    }
    return std::nullopt;
  });
}

void PythonSearchConsumer::refresh_rotation_scope(const RotationState& rotation_state,
                                                  const Document& scoped_vocabulary) {
  const Locked locked;
  calling_python([&] {
    _consumer.get().attr("refresh_rotation_scope")(to_python(rotation_state), to_python(scoped_vocabulary));
  });
}

}  // namespace tidalcrest::sync::python
