#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "object_ref.hpp"
#include "tidalcrest/sync/freshness_guard.hpp"

/// Python callables as the core calls them: on any of its threads, the GIL taken for the call alone. Making
/// one needs the GIL; copying and destroying one does not.
namespace tidalcrest::sync::python {

/// Empty for `None`.
std::function<std::string()> token_supplier(const py::object& get_token);
/// Absent stands for a result that is no `bytes`. Empty for `None`.
std::function<std::optional<std::string>()> wallet_secret_supplier(const py::object& get_wallet_secret);
/// Empty for `None`.
std::function<void()> plain_callback(const py::object& function);
std::function<void(const std::string&, std::int64_t)> era_callback(const py::object& callback);

/// The guard that calls `record_sync_update` of a Python object.
class PythonFreshnessGuard final : public RuntimeFreshnessGuard {
 public:
  explicit PythonFreshnessGuard(const py::object& guard) : _guard(guard) {}
  void record_sync_update(const std::string& relative_path, const std::string& kind,
                          const std::string& sha256) override;
  py::object object() const { return _guard.get(); }

 private:
  const ObjectRef _guard;
};

}  // namespace tidalcrest::sync::python
