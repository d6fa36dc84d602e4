#include "transport/curl_transport.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <memory>
#include <regex>

#include "host/child_process.hpp"
#include "host/endpoint.hpp"
#include "host/failures.hpp"
#include "host/integer.hpp"
#include "host/text.hpp"
#include "transport/backoff.hpp"
#include "transport/local_failure.hpp"
#include "transport/settings.hpp"

namespace tidalcrest::sync {
namespace {

constexpr const char* NO_CURL = "curl transport requested but curl is not available";
constexpr const char* STATUS_MARKER = "TIDALCREST_HTTP_STATUS:";
constexpr std::size_t TEXT_LIMIT_BYTES = 1 << 20;  // of headers and of the body of an error
constexpr int CURL_WRITE_ERROR = 23;               // curl's exit code when it cannot write its output

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::error_code failed;
    const auto parent = std::filesystem::temp_directory_path(failed);
    if (failed) throw_os_error(failed.value(), "directory for temporary files");
    std::string pattern = (parent / "tidalcrest-curl-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw_os_error(errno, "temporary directory " + pattern);
    _path = pattern;
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
  }
  std::string file(const char* name) const { return _path + "/" + name; }

 private:
  std::string _path;
};

bool is_error_status(std::int64_t status) { return status >= 400 && status <= 599; }

bool has_authorization(const Request& request) {
  const auto& items = request.header_items();
  return std::any_of(items.begin(), items.end(),
                     [](const auto& item) { return is_header_name(item.first, "authorization"); });
}

// What curl itself tells of its end, for a host that takes the exit code away: why it failed, and the status
// that it writes out last.
int exit_code_told(const ChildResult& completed) {
  const std::regex failure_form("curl: \\(([0-9]{1,3})\\)");
  std::smatch match;
  if (std::regex_search(completed.standard_error, match, failure_form)) return std::stoi(match[1].str());
  const bool has_status =
      !completed.standard_output.empty() || completed.standard_error.find(STATUS_MARKER) != std::string::npos;
  return has_status ? 0 : completed.exit_code;
}

ChildResult run_command(ChildCommand command) {
  command.stop_requested = _sync_backoff_stop_requested;
  ChildResult completed = run_child(command);
  if (completed.stopped) throw_stop_requested();
  if (completed.exit_code_is_lost) completed.exit_code = exit_code_told(completed);
  return completed;
}

ChildResult _run_curl_command(std::vector<std::string> arguments, std::int64_t most_file_bytes) {
  return run_command({.arguments = std::move(arguments),
                      .output_descriptor = {},
                      .stop_requested = {},
                      .most_file_bytes = most_file_bytes});
}

ChildResult _run_curl_download_command(std::vector<std::string> arguments, int output_descriptor,
                                       std::int64_t most_file_bytes) {
  return run_command({.arguments = std::move(arguments),
                      .output_descriptor = output_descriptor,
                      .stop_requested = {},
                      .most_file_bytes = most_file_bytes});
}

// Curl makes no file where nothing has come: a missing one counts as empty, and no other failure does.
std::optional<client_manifest::UpdatableFile> open_if_present(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor >= 0) return std::optional<client_manifest::UpdatableFile>(std::in_place, descriptor, path);
  if (errno != ENOENT) throw_os_error(errno, path);
  return std::nullopt;
}

// The start of a file, so that what a server sends without end does not fill the memory.
std::string file_text_or_empty(const std::string& path) {
  auto file = open_if_present(path);
  std::string text(TEXT_LIMIT_BYTES, '\0');
  std::size_t filled = 0;
  while (file && filled < text.size()) {
    const std::size_t count = file->read(text.data() + filled, text.size() - filled);
    if (count == 0) break;
    filled += count;
  }
  text.resize(filled);
  return text;
}

void hand_over_file(const std::string& path, BodySink& sink) {
  auto file = open_if_present(path);
  if (!file) return;
  std::string piece(static_cast<std::size_t>(_sync_http_response_read_bytes()), '\0');
  while (const std::size_t count = file->read(piece.data(), piece.size())) sink.write({piece.data(), count});
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines = text::split(text, "\n");
  for (auto& line : lines) {
    if (line.ends_with('\r')) line.pop_back();
  }
  return lines;
}

std::string exit_detail(const std::string& standard_error, int exit_code) {
  const std::string detail = text::strip(standard_error);
  return detail.empty() ? fmt::format("curl exited with status {}", exit_code) : detail;
}

// One more than the sink takes, so that the sink says why the request ends.
std::int64_t one_past(std::int64_t most_bytes) {
  const bool bounded = most_bytes > 0 && most_bytes < std::numeric_limits<std::int64_t>::max();
  return bounded ? most_bytes + 1 : 0;
}

// curl repeats a broken answer by itself, and writes the next one behind it.
std::int64_t for_every_try(std::int64_t most_bytes) {
  std::int64_t all = 0;
  return __builtin_mul_overflow(most_bytes, SYNC_CURL_RETRIES + 1, &all) ? 0 : all;
}

// Whether curl could not write because its file had reached the bound that it was given. Such a body is the
// server's doing and none of the disk's.
bool stopped_at_bound(const ChildResult& completed, std::int64_t file_bytes, std::int64_t most_file_bytes) {
  return completed.exit_code == CURL_WRITE_ERROR && most_file_bytes > 0 && file_bytes >= most_file_bytes;
}

std::int64_t size_of(int descriptor) {
  struct stat file {};
  return fstat(descriptor, &file) == 0 ? file.st_size : 0;
}

std::int64_t size_of(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? file.st_size : 0;
}

// Why the file takes no more bytes, asked of the file itself: curl says only that it could not write. What
// the question writes is taken back.
int write_error_of(int descriptor) {
  struct stat file {};
  if (fstat(descriptor, &file) != 0 || pwrite(descriptor, "", 1, file.st_size) < 0) return errno;
  return ftruncate(descriptor, file.st_size) != 0 ? errno : 0;
}

// A full disk is no fault of the network, and no repetition mends it.
[[noreturn]] void throw_unwritable(int descriptor, const std::string& detail) {
  const int why = write_error_of(descriptor);
  if (why != 0) throw_os_error(why, detail);
  throw OSError(detail);
}

[[noreturn]] void throw_unwritable(const std::string& path, const std::string& detail) {
  const client_manifest::UpdatableFile file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), path);
  if (file.descriptor() < 0) throw_os_error(errno, detail);
  throw_unwritable(file.descriptor(), detail);
}

// Runs what touches the local disk: its failures are none of the network's.
template <class Operation>
auto locally(const Operation& operation) {
  try {
    return operation();
  } catch (...) {
    throw LocalFailure{std::current_exception()};
  }
}

}  // namespace

std::string _request_host(const Request& request) {
  try {
    return split_url(request.full_url).hostname;
  } catch (const ValueError&) {
    return "";
  }
}

bool _curl_auto_host(const Request& request) {
  const std::string host = _request_host(request);
  return host == PUBLIC_DATA_ORIGIN_HOST || host.ends_with(std::string(".") + PUBLIC_DATA_ORIGIN_HOST);
}

std::optional<std::string> _find_curl_binary() { return find_executable("curl"); }

bool _should_use_curl_transport(const Request& request, const std::string& transport) {
  const std::string choice = _sync_http_transport(transport);
  if (choice == "urllib" || has_authorization(request)) return false;
  try {
    if (split_url(request.full_url).scheme != "https") return false;
  } catch (const ValueError&) {
    return false;
  }
  if (choice == "auto" && !_curl_auto_host(request)) return false;
  return _find_curl_binary().has_value();
}

HeaderMap _parse_curl_headers(const std::string& text) {
  HeaderMap last_block;
  bool in_block = false;
  for (const auto& line : lines_of(text)) {
    if (line.starts_with("HTTP/")) {
      last_block = {};
      in_block = true;
    } else if (text::strip(line).empty()) {
      in_block = false;
    } else if (in_block) {
      last_block.add_line(line);
    }
  }
  return last_block;
}

std::int64_t _curl_status_from_stdout(const std::string& standard_output, const std::string& headers_text) {
  const std::string written = text::strip(text::utf8_with_replacement(standard_output));
  if (!written.empty()) {
    if (const auto status = try_int(lines_of(written).back())) return *status;
  }
  const auto lines = lines_of(headers_text);
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    if (!line->starts_with("HTTP/")) continue;
    auto fields = text::split(*line, " ");
    std::erase(fields, "");
    if (fields.size() >= 2) return try_int(fields[1]).value_or(0);
  }
  return 0;
}

std::vector<std::string> _curl_command(const std::string& curl, const Request& request,
                                       double timeout_seconds,
                                       const std::vector<std::string>& output_options) {
  const double connect_timeout = std::min(timeout_seconds, SYNC_CURL_CONNECT_TIMEOUT_SECONDS);
  std::vector<std::string> command = {curl,
                                      "-4",
                                      "-sS",
                                      "-L",
                                      "--connect-timeout",
                                      text::general_text(connect_timeout),
                                      "--speed-limit",
                                      std::to_string(SYNC_CURL_LOW_SPEED_LIMIT_BYTES_PER_SECOND),
                                      "--speed-time",
                                      text::general_text(timeout_seconds),
                                      "--retry",
                                      std::to_string(SYNC_CURL_RETRIES),
                                      "--retry-delay",
                                      std::to_string(SYNC_CURL_RETRY_DELAY_SECONDS)};
  command.insert(command.end(), output_options.begin(), output_options.end());
  bool user_agent_seen = false;
  for (const auto& [key, value] : request.header_items()) {
    command.insert(command.end(), {"-H", key + ": " + value});
    user_agent_seen = user_agent_seen || is_header_name(key, "user-agent");
  }
  if (!user_agent_seen) command.insert(command.end(), {"-A", SYNC_USER_AGENT});
  command.push_back(request.full_url);
  return command;
}

HttpHead _curl_request(const Request& request, double timeout_seconds, BodySink& sink) {
  const auto curl = _find_curl_binary();
  if (!curl) throw URLError(NO_CURL);
  const auto directory = locally([] { return std::make_unique<const TemporaryDirectory>(); });
  const std::string header_path = directory->file("headers.txt");
  const std::string body_path = directory->file("body.bin");
  const std::int64_t most_file_bytes = one_past(sink.most_bytes());
  const ChildResult completed =
      _run_curl_command(_curl_command(*curl, request, timeout_seconds,
                                      {"-D", header_path, "-o", body_path, "-w", "%{http_code}"}),
                        most_file_bytes);

  const std::string headers_text = locally([&] { return file_text_or_empty(header_path); });
  HttpHead head{_curl_status_from_stdout(completed.standard_output, headers_text),
                _parse_curl_headers(headers_text)};
  const bool ended_well =
      completed.exit_code == 0 || stopped_at_bound(completed, size_of(body_path), most_file_bytes);
  if (!ended_well && !is_error_status(head.status)) {
    const std::string detail =
        exit_detail(text::utf8_with_replacement(completed.standard_error), completed.exit_code);
    if (completed.exit_code == CURL_WRITE_ERROR) locally([&] { throw_unwritable(body_path, detail); });
    throw URLError(detail);
  }
  if (is_error_status(head.status)) {
    throw HTTPError(request.full_url, head.status, fmt::format("HTTP {}", head.status), head.headers,
                    locally([&] { return file_text_or_empty(body_path); }));
  }
  locally([&] {
    sink.begin(head.status, head.headers);
    hand_over_file(body_path, sink);
  });
  return head;
}

HttpHead _curl_download_to_file(const Request& request, client_manifest::UpdatableFile& file,
                                double timeout_seconds, std::int64_t most_bytes) {
  const auto curl = _find_curl_binary();
  if (!curl) throw ConnectionError(NO_CURL);
  const std::string status_line = fmt::format("%{{stderr}}\n{}%{{http_code}}\n", STATUS_MARKER);
  const std::int64_t most_file_bytes = for_every_try(most_bytes);
  file.flush();
  const ChildResult completed = _run_curl_download_command(
      _curl_command(*curl, request, timeout_seconds, {"-o", "-", "-w", status_line}), file.descriptor(),
      most_file_bytes);
  file.flush();

  const std::string error_text = text::utf8_with_replacement(completed.standard_error);
  const std::regex status_form(std::string(STATUS_MARKER) + "([0-9]{3})");
  const std::regex status_line_form("\n?" + std::string(STATUS_MARKER) + "[0-9]{3}\n?");
  std::smatch match;
  const std::int64_t status =
      std::regex_search(error_text, match, status_form) ? to_int(std::string_view(match[1].str())) : 0;
  const bool ended_well =
      completed.exit_code == 0 || stopped_at_bound(completed, size_of(file.descriptor()), most_file_bytes);
  if (!ended_well && !is_error_status(status)) {
    const std::string detail =
        exit_detail(std::regex_replace(error_text, status_line_form, ""), completed.exit_code);
    if (completed.exit_code == CURL_WRITE_ERROR) throw_unwritable(file.descriptor(), detail);
    throw ConnectionError(detail);
  }
  return {status, {}};
}

}  // namespace tidalcrest::sync
