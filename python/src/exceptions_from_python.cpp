#include <pybind11/stl.h>

#include <optional>
#include <vector>

#include "carried_exception.hpp"
#include "exceptions.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::python {
namespace {

struct Raised {
  ObjectRef object;
  std::string type_name;
  std::string message;
};

// A failure of kind `Kind` that stands for a Python exception. Virtual bases are built by the last class
// alone.
template <class Kind>
class Carried final : public Kind, public CarriedException {
 public:
  template <class... Arguments>
  explicit Carried(Raised raised, Arguments&&... arguments)
      : Failure(raised.message),
        Kind(std::forward<Arguments>(arguments)...),
        CarriedException(std::move(raised.object)),
        _type_name(std::move(raised.type_name)) {}
  const char* type_name() const noexcept override { return _type_name.c_str(); }

 private:
  const std::string _type_name;
};

// Any other exception. (The root itself is nobody's virtual base.)
class OtherFailure : public virtual Failure {
 public:
  explicit OtherFailure(const std::string& message) : Failure(message) {}
};

template <class Value>
std::optional<Value> attribute(const py::object& exception, const char* name) {
  const py::object value = py::getattr(exception, name, py::none());
  if (value.is_none()) return std::nullopt;
  try {
    return value.cast<Value>();
  } catch (const py::cast_error&) {
    return std::nullopt;
  }
}

using Throw = void (*)(Raised, const py::object&);

template <class Kind>
void throw_kind(Raised raised, const py::object&) {
  const std::string message = raised.message;
  throw Carried<Kind>(std::move(raised), message);
}

template <class Kind>
void throw_os_kind(Raised raised, const py::object& exception) {
  const std::string message = raised.message;
  const int error_number = attribute<int>(exception, "errno").value_or(0);
  throw Carried<Kind>(std::move(raised), message, error_number);
}

void throw_permanent_download(Raised raised, const py::object& exception) {
  const std::string message = raised.message;
  throw Carried<PermanentDownloadError>(std::move(raised), message,
                                        attribute<std::string>(exception, "file_path"),
                                        attribute<std::int64_t>(exception, "status"));
}

void throw_unavailable(Raised raised, const py::object& exception) {
  UnavailableDetails details{
      .statuses =
          attribute<std::vector<std::int64_t>>(exception, "statuses").value_or(std::vector<std::int64_t>()),
      .failures =
          attribute<std::vector<std::string>>(exception, "failures").value_or(std::vector<std::string>()),
      .server_error_code = attribute<std::string>(exception, "server_error_code"),
      .dependency = attribute<std::string>(exception, "dependency"),
      .retryable = attribute<bool>(exception, "retryable"),
      .recovery = attribute<std::string>(exception, "recovery"),
      .reason = attribute<std::string>(exception, "reason"),
      .typed_details = attribute<bool>(exception, "typed_details"),
  };
  throw Carried<SyncUnavailableError>(
      std::move(raised), attribute<std::string>(exception, "url").value_or(""),
      attribute<std::int64_t>(exception, "attempts").value_or(0), std::move(details));
}

// Leaf first: the first class that an exception is an instance of gives its kind.
struct NamedKind {
  const char* name;
  Throw throw_it;
};
constexpr NamedKind SYNC_KINDS[] = {
    {"SyncUnavailableError", throw_unavailable},
    {"PermanentDownloadError", throw_permanent_download},
    {"ManifestSupersededError", throw_kind<ManifestSupersededError>},
    {"DiskSpaceError", throw_kind<DiskSpaceError>},
    {"IntegrityError", throw_kind<IntegrityError>},
    {"EraError", throw_kind<EraError>},
    {"ManifestError", throw_kind<ManifestError>},
    {"SyncError", throw_kind<SyncError>},
    {"FeatureRotationStateError", throw_kind<FeatureRotationStateError>},
    {"StateError", throw_kind<StateError>},
    {"AuthError", throw_kind<AuthError>},
    {"LibraryUpdateRequired", throw_kind<LibraryUpdateRequired>},
    {"SyncBackoffCancelled", throw_kind<SyncBackoffCancelled>},
};

struct HostKind {
  PyObject* type;
  Throw throw_it;
};
const std::vector<HostKind>& host_kinds() {
  static const std::vector<HostKind> kinds = {
      {PyExc_FileNotFoundError, throw_os_kind<FileNotFoundError>},
      {PyExc_ConnectionError, throw_os_kind<ConnectionError>},
      {PyExc_TimeoutError, throw_os_kind<TimeoutError>},
      {PyExc_OSError, throw_os_kind<OSError>},
      {PyExc_UnicodeDecodeError, throw_kind<UnicodeDecodeError>},
      {PyExc_ValueError, throw_kind<ValueError>},
      {PyExc_TypeError, throw_kind<TypeError>},
      {PyExc_KeyError, throw_kind<KeyError>},
      {PyExc_RuntimeError, throw_kind<RuntimeError>},
  };
  return kinds;
}

Throw kind_of(const py::object& exception) {
  for (const auto& kind : SYNC_KINDS) {
    const py::object type = exception_class(kind.name);
    if (type && py::isinstance(exception, type)) return kind.throw_it;
  }
  for (const auto& kind : host_kinds()) {
    if (PyObject_IsInstance(exception.ptr(), kind.type) == 1) return kind.throw_it;
  }
  return throw_kind<OtherFailure>;
}

std::string type_name_of(const py::object& exception) {
  return py::type::of(exception).attr("__name__").cast<std::string>();
}

std::string message_of(const py::object& exception) {
  try {
    const py::object bytes = py::str(exception).attr("encode")("utf-8", "backslashreplace");
    return bytes.cast<std::string>();
  } catch (py::error_already_set&) {
    return "<exception str() failed>";
  }
}

}  // namespace

py::object taken_exception(py::error_already_set& raised) {
  py::object exception = raised.value();
  if (raised.trace()) PyException_SetTraceback(exception.ptr(), raised.trace().ptr());
  return exception;
}

void throw_as_failure(const py::object& exception) {
  if (PyObject_IsInstance(exception.ptr(), PyExc_Exception) != 1) throw PythonExit{ObjectRef(exception)};
  kind_of(exception)({ObjectRef(exception), type_name_of(exception), message_of(exception)}, exception);
  throw RuntimeError("an exception of no kind");  // every kind throws
}

}  // namespace tidalcrest::sync::python
