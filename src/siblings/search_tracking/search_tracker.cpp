#include "siblings/search_tracking/search_tracker.hpp"

#include <chrono>

#include "host/json.hpp"
#include "host/log.hpp"
#include "host/mutex.hpp"
#include "host/never_destroyed.hpp"
#include "siblings/distribution/contained_files.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::search_tracking {
namespace {

constexpr std::size_t KEPT_TRANSITIONS = 100;

double wall_seconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Transitions kept in the file, without the oldest when there are too many; empty when the file is not
// readable.
Document read_transitions(const std::string& data_dir) {
  try {
    const auto bytes = client_manifest::read_contained_regular_file_if_present(data_dir, SEARCH_TRACKING_FILE,
                                                                               "search tracking");
    if (!bytes) return Document::array();
    const Document document = parse_strict_json(*bytes);
    const Document* transitions = find_member(document, "transitions");
    if (transitions == nullptr || !transitions->is_array()) throw ValueError("no list of transitions");
    return *transitions;
  } catch (const std::exception& failure) {
    log::warning("Search tracking file is unreadable and will be replaced: %s", failure.what());
    return Document::array();
  }
}

void drop_oldest(Document& transitions) {
  if (transitions.size() <= KEPT_TRANSITIONS) return;
  const auto surplus = static_cast<std::ptrdiff_t>(transitions.size() - KEPT_TRANSITIONS);
  transitions.erase(transitions.begin(), transitions.begin() + surplus);
}

class JsonFileTracker final : public SearchTracker {
 public:
  JsonFileTracker(std::string data_dir, Document agent_id)
      : _data_dir(std::move(data_dir)), _agent_id(std::move(agent_id)) {}

  void handle_era_transition(std::int64_t new_era_number,
                             std::optional<std::int64_t> previous_era_number) override {
    const MutexLock lock(_mutex);
    if (_closed) throw ValueError("search tracker is closed");
    Document transitions = read_transitions(_data_dir);
    transitions.push_back(
        {{"previous_era_number", previous_era_number ? Document(*previous_era_number) : Document()},
         {"new_era_number", new_era_number},
         {"at", wall_seconds()}});
    drop_oldest(transitions);
    const Document document = {{"schema_version", 1},
                               {"agent_id", _agent_id},
                               {"era_number", new_era_number},
                               {"transitions", std::move(transitions)}};
    client_manifest::write_contained_regular_file(_data_dir, SEARCH_TRACKING_FILE,
                                                  dump_json(document, {.sort_keys = true}), true);
  }

  void close() override {
    const MutexLock lock(_mutex);
    _closed = true;
  }

 private:
  const std::string _data_dir;
  const Document _agent_id;
  Mutex _mutex;  // held over the read-modify-replace of the file too
  bool _closed GUARDED_BY(_mutex) = false;
};

class BuiltIn final : public Module {
 public:
  std::shared_ptr<SearchTracker> open(const std::string& data_dir,
                                      const std::optional<identity::Identity>& identity) override {
    return std::make_shared<JsonFileTracker>(data_dir, identity ? Document(identity->agent_id) : Document());
  }
};

}  // namespace

ModuleSeam<Module>& module_seam() {
  static auto& seam = never_destroyed<ModuleSeam<Module>>(std::make_shared<BuiltIn>());
  return seam;
}

std::shared_ptr<SearchTracker> open_search_tracker(const std::string& data_dir,
                                                   const std::optional<identity::Identity>& identity) {
  return module_seam().current()->open(data_dir, identity);
}

}  // namespace tidalcrest::sync::search_tracking
