#include "siblings/catalog/reason_descriptions.hpp"

#include <array>
#include <string_view>

#include "host/never_destroyed.hpp"
#include "host/text.hpp"

namespace tidalcrest::sync::reason_descriptions {
namespace {

struct Wording {
  std::string_view recovery;
  const char* rendered;
};

constexpr std::array WORDINGS = {
    Wording{"reauthenticate",
            "reauthenticate; the data service refuses the present credentials, "
            "and sync goes on by itself once new ones are supplied"},
    Wording{"contact_tidalcrest",
            "contact_tidalcrest; the data service reports a fault that only its operators can mend"},
    Wording{"retry_later",
            "wait_for_retry; sync repeats by itself after a backoff wait; "
            "if this lasts, check network access to the data service"},
};

class BuiltIn final : public Module {
 public:
  Document describe_reason(const std::string& reason_class, const ReasonDetails& details) override {
    const std::string recovery = details.recovery.is_null() ? std::string() : text::str(details.recovery);
    std::string rendered;
    for (const auto& wording : WORDINGS) {
      if (wording.recovery == recovery) rendered = wording.rendered;
    }
    return {{"reason_class", reason_class}, {"recovery", recovery}, {"rendered", rendered}};
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

Document describe_reason(const std::string& reason_class, const ReasonDetails& details) {
  return module_seam().current()->describe_reason(reason_class, details);
}

}  // namespace tidalcrest::sync::reason_descriptions
