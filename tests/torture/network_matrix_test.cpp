#include <sys/resource.h>

#include "download/download_fixture.hpp"
#include "origin/byte_range.hpp"
#include "support/raw_server.hpp"

namespace tidalcrest::sync {
namespace {

using namespace testing;
using origin::RecordedRequest;

const std::string SMALL = pattern_bytes(30);   // within one chunk of the fixture
const std::string LARGE = pattern_bytes(100);  // needs three

// What a Content-Range says beside the truth.
struct RangeHeader {
  const char* label;
  bool is_sent;
  std::size_t start_off_by, total_times;
};
constexpr RangeHeader RANGE_HEADERS[] = {{"right", true, 0, 1},
                                         {"wrong start", true, 7, 1},
                                         {"wrong total", true, 0, 3},
                                         {"missing", false, 0, 0}};

enum class Length { exact, shorter, longer, empty };
constexpr Length LENGTHS[] = {Length::exact, Length::shorter, Length::longer, Length::empty};

struct Odd {
  int status;
  RangeHeader range;
  Length length;
};

class NetworkMatrix : public DownloadFixture {
 public:
  static constexpr int MOST_WAITS = 40;

  NetworkMatrix() {
    backoff.on_wait([this](const auto&) { ++_waits; });
  }

  Reply odd_answer(const Odd& odd, const RecordedRequest& request, const std::string& file) const {
    const auto asked = origin::decide_range(request.header("Range"), file.size());
    const bool is_part = odd.status != 200 && asked.kind == origin::RangeDecision::Kind::PART;
    const std::size_t first = is_part ? asked.first : 0;
    const std::size_t last = is_part ? asked.last : file.size() - 1;
    Reply reply{.status = odd.status, .body = file.substr(first, last - first + 1)};
    if (odd.length == Length::shorter) reply.body.resize(reply.body.size() / 2);
    if (odd.length == Length::longer) reply.body += "bytes that do not belong here";
    if (odd.length == Length::empty) reply.body.clear();
    if (odd.range.is_sent) {
      reply.headers.emplace("Content-Range", fmt::format("bytes {}-{}/{}", first + odd.range.start_off_by,
                                                         last, file.size() * odd.range.total_times));
    }
    return reply;
  }

  // Right bytes in place, or a failure of the contract and nothing in place; gives whether it was the former.
  bool right_bytes_or_clear_error(const Odd& odd, const std::string& file, std::size_t staged,
                                  bool for_ever) {
    const std::string path = "cases/" + std::to_string(++_cases) + ".bin";
    if (staged > 0) data.write(path + ".tmp", file.substr(0, staged));
    server.set_fallback([&](const RecordedRequest& request) -> std::optional<Reply> {
      if (request.path != url_path(path)) return std::nullopt;
      if (!for_ever) server.serve(request.path, file);
      return odd_answer(odd, request, file);
    });
    _waits = 0;
    const ScopedBackoffContext context(
        {.surface = {}, .data_dir = {}, .stop_requested = [this] { return _waits > MOST_WAITS; }});
    try {
      download(path, entry_for(file));
    } catch (const SyncBackoffCancelled&) {
      const bool transient = odd.status == 503;
      EXPECT_TRUE(for_ever && transient) << "repeats for ever";
      EXPECT_FALSE(data.has(path));
      return false;
    } catch (const SyncError&) {
      EXPECT_FALSE(data.has(path));
      return false;
    }
    EXPECT_EQ(data.read(path), file);
    return true;
  }

 private:
  static std::string content_range(std::size_t first, std::size_t last, std::size_t total) {
    return "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/" + std::to_string(total);
  }
  std::atomic<int> _waits{0};
  int _cases = 0;
};

TEST_F(NetworkMatrix, EveryOddAnswerEndsInRightBytesOrAClearError) {
  int recovered = 0;
  int combinations = 0;
  for (const int status : {200, 206, 204, 301, 404, 416, 503}) {
    for (const RangeHeader& range : RANGE_HEADERS) {
      for (const Length length : LENGTHS) {
        for (const std::string* file : {&SMALL, &LARGE}) {
          for (const std::size_t staged : {std::size_t{0}, std::size_t{1}, file->size() / 2, file->size() - 1,
                                           file->size(), file->size() + 5}) {
            for (const bool for_ever : {false, true}) {
              SCOPED_TRACE(fmt::format("status {}, Content-Range {}, length {}, file of {}, staged {}, {}",
                                       status, range.label, static_cast<int>(length), file->size(), staged,
                                       for_ever));
              const Odd odd{status, range, length};
              recovered += right_bytes_or_clear_error(odd, *file, staged, for_ever) ? 1 : 0;
              ++combinations;
            }
          }
        }
      }
    }
  }
  RecordProperty("combinations", combinations);
  EXPECT_GT(recovered, combinations / 3);  // the matrix is not all failure
}

TEST_F(NetworkMatrix, AResetAtEveryByteIsResumed) {
  const std::string response =
      "HTTP/1.1 200 OK\r\nContent-Length: 30\r\nContent-Type: application/octet-stream\r\n\r\n" + SMALL;
  for (std::size_t at = 0; at <= response.size(); ++at) {
    SCOPED_TRACE(at);
    RawServer once([&](const RawServer::Send& send, int connection) {
      if (connection == 1) {
        send(response.substr(0, at));
      } else if (at >= response.size() - SMALL.size() + 1 && at < response.size()) {
        const std::size_t first = at - (response.size() - SMALL.size());
        send("HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(SMALL.size() - first) +
             "\r\n\r\n" + SMALL.substr(first));
      } else {
        send(response);
      }
    });
    options.generation.base_url = once.url();
    const std::string path = "resets/" + std::to_string(at) + ".bin";
    download(path, entry_for(SMALL));
    ASSERT_EQ(data.read(path), SMALL);
    ASSERT_LE(once.connections(), 2);
  }
}

// Peak resident memory of this process so far, in KiB.
long peak_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(NetworkMatrix, HeadersOfAbsurdSizeAreANetworkFailureAndTakeNoMemory) {
  const std::string filler(4000, 'x');
  RawServer absurd([&](const RawServer::Send& send, int) {
    if (!send("HTTP/1.1 200 OK\r\n")) return;
    for (int line = 0; send("X-Line-" + std::to_string(line) + ": " + filler + "\r\n"); ++line) continue;
  });
  RawServer one_line([&](const RawServer::Send& send, int) {
    if (!send("HTTP/1.1 200 OK\r\nX-Line: ")) return;
    while (send(filler)) continue;
  });
  const long before = peak_kib();
  for (const auto* server : {&absurd, &one_line}) {
    EXPECT_THROW(client._open_request({server->url() + "/f", {}}, 5.0), OSError);
  }
  EXPECT_LT(peak_kib() - before, 16 * 1024);
}

TEST_F(NetworkMatrix, ABodyWithoutEndIsCutOff) {
  const std::string filler(1 << 16, 'x');
  RawServer endless([&](const RawServer::Send& send, int) {
    if (!send("HTTP/1.1 200 OK\r\n\r\n")) return;
    while (send(filler)) continue;
  });
  options.generation.base_url = endless.url();
  std::int64_t most_staged = 0;
  progress->on_staged = [&](std::int64_t staged) { most_staged = std::max(most_staged, staged); };
  const long before = peak_kib();
  EXPECT_THROW(download("small.bin", entry_for(SMALL)), SyncError);
  EXPECT_THROW(download("large.bin", entry_for(LARGE)), SyncError);
  EXPECT_LT(peak_kib() - before, 16 * 1024);
  EXPECT_LT(most_staged, 8 << 20);  // nor does it fill the disk
  EXPECT_FALSE(data.has("small.bin"));
}

}  // namespace
}  // namespace tidalcrest::sync
