#include "origin/faults.hpp"

#include <charconv>

#include "host/text.hpp"
#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

using Kind = Fault::Kind;
using sync::ValueError;

template <class Number>
Number number_of(const std::string& word, const std::string& value) {
  Number number{};
  const auto* end = value.data() + value.size();
  const auto got = std::from_chars(value.data(), end, number);
  if (value.empty() || got.ec != std::errc() || got.ptr != end || number < Number{}) {
    throw ValueError("fault: not a number in '" + word + "'");
  }
  return number;
}

/// One word after the pattern; the first names the kind.
void read_word(const std::string& word, bool first, Fault& fault) {
  struct Named {
    const char* name;
    Kind kind;
  };
  static constexpr Named AT_BYTE[] = {{"cut", Kind::CUT},
                                      {"reset", Kind::RESET},
                                      {"stall", Kind::STALL},
                                      {"wrong-bytes", Kind::WRONG_BYTES},
                                      {"switch", Kind::SWITCH}};
  const auto equals = word.find('=');
  const auto name = word.substr(0, equals);
  const auto value = equals == std::string::npos ? std::string() : word.substr(equals + 1);
  if (first) {
    for (const auto& [kind_name, kind] : AT_BYTE) {
      if (name != kind_name) continue;
      fault.kind = kind;
      if (equals != std::string::npos) fault.after = number_of<std::uint64_t>(word, value);
      return;
    }
    if (name == "status") {
      fault.status = number_of<int>(word, value);
    } else if (name == "delay") {
      fault.kind = Kind::DELAY;
      fault.seconds = number_of<double>(word, value);
    } else if (word == "ignore-range") {
      fault.kind = Kind::IGNORE_RANGE;
    } else if (word == "416") {
      fault.kind = Kind::RANGE_NOT_SATISFIABLE;
    } else if (word == "body") {
      fault.kind = Kind::BODY;
    } else {
      throw ValueError("fault: unknown kind '" + word + "'");
    }
  } else if (name == "count") {
    fault.count = value == "all" ? 0 : number_of<std::size_t>(word, value);
  } else if (name == "skip") {
    fault.skip = number_of<std::size_t>(word, value);
  } else if (name == "seconds") {
    fault.seconds = number_of<double>(word, value);
  } else {
    throw ValueError("fault: unknown setting '" + word + "'");
  }
}

}  // namespace

bool glob_matches(const std::string& pattern, const std::string& text) {
  std::size_t p = 0, t = 0, star = std::string::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (star != std::string::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

std::pair<std::string, Fault> parse_fault(const std::string& text) {
  auto rest = sync::text::strip(text);
  Fault fault;
  if (const auto body = rest.find(" body="); body != std::string::npos) {
    fault.body = rest.substr(body + 6);
    rest.resize(body);
  }
  std::vector<std::string> words;
  for (auto& word : sync::text::split(rest, " ")) {
    if (!word.empty()) words.push_back(std::move(word));
  }
  if (words.size() < 2) throw ValueError("fault: expected a pattern and a kind, got '" + text + "'");
  for (std::size_t i = 1; i < words.size(); ++i) read_word(words[i], i == 1, fault);
  return {words.front(), fault};
}

void FaultList::add(const std::string& pattern, Fault fault) {
  const std::lock_guard lock(_mutex);
  _entries.push_back({pattern, std::move(fault)});
}

void FaultList::clear() {
  const std::lock_guard lock(_mutex);
  _entries.clear();
}

std::optional<Fault> FaultList::take(const std::string& resource) {
  const std::lock_guard lock(_mutex);
  for (auto& entry : _entries) {
    if (entry.used_up() || !glob_matches(entry.pattern, resource)) continue;
    if (entry.seen++ < entry.fault.skip) continue;
    ++entry.hits;
    return entry.fault;
  }
  return std::nullopt;
}

sync::Document FaultList::describe() const {
  const std::lock_guard lock(_mutex);
  auto list = sync::Document::array();
  for (const auto& entry : _entries) {
    list.push_back({{"pattern", entry.pattern}, {"hits", entry.hits}, {"used_up", entry.used_up()}});
  }
  return list;
}

HttpResponse apply_fault(const Fault& fault, const HttpRequest& request, const HttpServer::Handler& respond,
                         const std::function<void()>& switch_release) {
  HttpResponse response;
  auto& how = response.transmission;
  switch (fault.kind) {
    case Kind::STATUS:
    case Kind::BODY:
      response.status = fault.kind == Kind::BODY ? 200 : fault.status;
      response.content = Content(fault.body);
      break;
    case Kind::IGNORE_RANGE: {
      auto without_range = request;
      std::erase_if(without_range.headers,
                    [](const auto& header) { return sync::text::lower(header.first) == "range"; });
      response = respond(without_range);
      break;
    }
    case Kind::RANGE_NOT_SATISFIABLE:
      response.status = 416;
      break;
    default:
      response = respond(request);
  }
  switch (fault.kind) {
    case Kind::CUT:
      how.cut_after = fault.after;
      break;
    case Kind::RESET:
      how.reset_after = fault.after;
      break;
    case Kind::WRONG_BYTES:
      how.wrong_after = fault.after;
      break;
    case Kind::STALL:
      how.stall_after = fault.after;
      how.stall_seconds = fault.seconds;
      break;
    case Kind::DELAY:
      how.delay_seconds = fault.seconds;
      break;
    case Kind::SWITCH:
    case Kind::CALL:
      how.call_after = fault.after;
      how.call = fault.kind == Kind::SWITCH ? switch_release : fault.call;
      break;
    default:
      break;
  }
  response.headers.insert(fault.headers.begin(), fault.headers.end());
  return response;
}

}  // namespace tidalcrest::origin
