#include "origin/http_message.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "host/failures.hpp"
#include "host/text.hpp"
#include "origin/byte_range.hpp"

namespace tidalcrest::origin {

using sync::throw_os_error;

const std::string* find_header(const Headers& headers, const std::string& name) {
  const auto wanted = sync::text::lower(name);
  const auto at = std::find_if(headers.begin(), headers.end(),
                               [&](const auto& item) { return sync::text::lower(item.first) == wanted; });
  return at == headers.end() ? nullptr : &at->second;
}

OpenFile::OpenFile(const std::string& path) : _fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (_fd < 0) throw_os_error(errno, path);
  struct stat status {};
  const int error = ::fstat(_fd, &status) != 0 ? errno : S_ISREG(status.st_mode) ? 0 : ENOENT;
  if (error != 0) {
    ::close(_fd);
    throw_os_error(error, path);
  }
  _size = static_cast<std::uint64_t>(status.st_size);
}

OpenFile::~OpenFile() { ::close(_fd); }

std::size_t OpenFile::read_at(std::uint64_t offset, char* into, std::size_t count) const {
  const auto got = ::pread(_fd, into, count, static_cast<off_t>(offset));
  if (got < 0) throw_os_error(errno, "origin: read");
  return static_cast<std::size_t>(got);
}

Content::Content(std::string text)
    : bytes(std::make_shared<const std::string>(std::move(text))), length(bytes->size()) {}

Content::Content(std::shared_ptr<const OpenFile> whole_file)
    : file(std::move(whole_file)), length(file->size()) {}

Content Content::slice(std::uint64_t from, std::uint64_t count) const {
  Content part = *this;
  part.offset += from;
  part.length = count;
  return part;
}

HttpResponse ranged_response(const HttpRequest& request, const Content& whole) {
  HttpResponse response;
  response.headers.emplace("Accept-Ranges", "bytes");
  response.content = whole;
  const auto* range = find_header(request.headers, "Range");
  if (range == nullptr || find_header(request.headers, "If-Range") != nullptr) return response;

  const auto decision = decide_range(*range, whole.length);
  const auto size = std::to_string(whole.length);
  if (decision.kind == RangeDecision::Kind::UNSATISFIABLE) {
    response.status = 416;
    response.headers.emplace("Content-Range", "bytes */" + size);
    response.content = Content();
  } else if (decision.kind == RangeDecision::Kind::PART) {
    response.status = 206;
    response.headers.emplace("Content-Range", "bytes " + std::to_string(decision.first) + "-" +
                                                  std::to_string(decision.last) + "/" + size);
    response.content = whole.slice(decision.first, decision.last - decision.first + 1);
  }
  return response;
}

}  // namespace tidalcrest::origin
