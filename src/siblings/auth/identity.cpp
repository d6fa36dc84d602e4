#include "siblings/auth/identity.hpp"

#include "host/json.hpp"
#include "host/never_destroyed.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::identity {
namespace {

class BuiltIn final : public Module {
 public:
  Identity resolve_identity_for_data_dir(const std::string& data_dir) override {
    const Document document = parse_strict_json(
        client_manifest::read_contained_regular_file(data_dir, IDENTITY_FILE, "identity file"));
    const Document* version = find_member(document, "schema_version");
    if (version == nullptr || !version->is_number_integer() || *version != 1) {
      throw ValueError("identity file: schema_version must be 1");
    }
    const Document* agent_id = find_member(document, "agent_id");
    if (agent_id == nullptr || !agent_id->is_string() || agent_id->get_ref<const std::string&>().empty()) {
      throw ValueError("identity file: agent_id must be a non-empty string");
    }
    return Identity{.agent_id = agent_id->get<std::string>(), .host_object = nullptr};
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

Identity resolve_identity_for_data_dir(const std::string& data_dir) {
  return module_seam().current()->resolve_identity_for_data_dir(data_dir);
}

}  // namespace tidalcrest::sync::identity
