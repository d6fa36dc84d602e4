#pragma once

#include <memory>
#include <optional>
#include <string>

#include "object_ref.hpp"
#include "tidalcrest/sync/search_consumer.hpp"

namespace tidalcrest::sync::python {

/// A Python object as a running search: any object will do. One without a `refresh_rotation_scope` is kept
/// and never asked for anything else.
class PythonSearchConsumer final : public RotationSearchConsumer {
 public:
  explicit PythonSearchConsumer(const py::object& consumer) : _consumer(consumer) {}
  bool takes_refreshes() const override;
  std::optional<std::string> named_universe() const override;
  void refresh_rotation_scope(const RotationState& rotation_state,
                              const Document& scoped_vocabulary) override;
  py::object object() const { return _consumer.get(); }

 private:
  const ObjectRef _consumer;
};

}  // namespace tidalcrest::sync::python
