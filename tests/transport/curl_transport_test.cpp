#include "transport/curl_transport.hpp"

#include <fcntl.h>
#include <signal.h>

#include "origin/scripted_server.hpp"
#include "support/environment.hpp"
#include "transport/fixture.hpp"
#include "transport/http_client.hpp"
#include "transport/local_failure.hpp"

namespace tidalcrest::sync {
namespace {

using testing::CollectingSink;

const Request DATA_FILE{"https://data.tidalcrest.example/f", {{"User-Agent", "ua"}}};

class CurlTransport : public testing::TransportTest {
 public:
  // Puts a script of this text where curl is looked for; `$0.args` has its arguments, one a line.
  void fake_curl(const std::string& script) {
    bin.write("curl", "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$0.args\"\n" + script);
    std::filesystem::permissions(bin.path("curl"), std::filesystem::perms::owner_all);
  }
  client_manifest::UpdatableFile open_file(const std::string& path) {
    return client_manifest::UpdatableFile(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600), path);
  }

  testing::TempDir bin;
  testing::TempDir dir;
  const testing::ScopedEnvironment search_path{"PATH", bin.path() + ":" + getenv("PATH")};
};

TEST_F(CurlTransport, IsChosenForPublicHttpsOnly) {
  const std::string data = "https://data.tidalcrest.example/f";
  const struct {
    const char* label;
    Request request;
    const char* transport;
    bool used;
  } cases[] = {
      {"data origin", {data, {}}, "", true},
      {"data origin, other case", {"https://Data.TidalCrest.Example/f", {}}, "auto", true},
      {"subdomain", {"https://eu.data.tidalcrest.example/f", {}}, "auto", true},
      {"same ending", {"https://notdata.tidalcrest.example/f", {}}, "auto", false},
      {"other host", {"https://other.example/f", {}}, "auto", false},
      {"other host, forced", {"https://other.example/f", {}}, "curl", true},
      {"http, forced", {"http://127.0.0.1/f", {}}, "curl", false},
      {"credentials, forced", {data, {{"AUTHORIZATION", "Bearer x"}}}, "curl", false},
      {"forbidden", {data, {}}, "urllib", false},
  };
  fake_curl("");
  for (const auto& c : cases)
    EXPECT_EQ(_should_use_curl_transport(c.request, c.transport), c.used) << c.label;
  const testing::ScopedEnvironment nowhere("PATH", dir.path());
  EXPECT_FALSE(_should_use_curl_transport({data, {}}, "curl"));
  CollectingSink sink;
  auto file = open_file(dir.path("f"));
  EXPECT_EQ(failure_of([&] { _curl_request(DATA_FILE, 2.0, sink); }),
            "URLError: curl transport requested but curl is not available");
  EXPECT_EQ(failure_of([&] { _curl_download_to_file(DATA_FILE, file, 2.0); }),
            "ConnectionError: curl transport requested but curl is not available");
}

TEST_F(CurlTransport, HasAFixedCommandLine) {
  EXPECT_THAT(_curl_command("/bin/curl", {"https://h/f", {{"Range", "bytes=1-"}, {"user-agent", "ua"}}}, 30.0,
                            {"-o", "-"}),
              ElementsAre("/bin/curl", "-4", "-sS", "-L", "--connect-timeout", "5", "--speed-limit", "1024",
                          "--speed-time", "30", "--retry", "4", "--retry-delay", "0", "-o", "-", "-H",
                          "Range: bytes=1-", "-H", "user-agent: ua", "https://h/f"));
  const auto bare = _curl_command("/bin/curl", {"", {}}, 2.5, {});
  EXPECT_EQ(bare.at(5), "2.5");
  EXPECT_EQ(bare.at(9), "2.5");
  EXPECT_THAT(std::vector<std::string>(bare.end() - 3, bare.end()),
              ElementsAre("-A", "tidalcrest-sync/0.0.3", ""));
}

TEST_F(CurlTransport, ReadsTheLastHeaderBlock) {
  const auto headers = _parse_curl_headers(
      "HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\nstray: line\r\nHTTP/2 200\r\nETag: a:b\r\nno colon\r\nX-A: "
      "1\r\nX-A: 2\r\n\r\n");
  EXPECT_EQ(headers.items(), (HeaderItems{{"ETag", "a:b"}, {"X-A", "2"}}));
  EXPECT_TRUE(_parse_curl_headers("").empty());
  const std::string dump = "HTTP/1.1 302 Found\r\n\r\nHTTP/1.1 206 Partial\r\n";
  EXPECT_EQ(_curl_status_from_stdout("noise\n200", dump), 200);
  EXPECT_EQ(_curl_status_from_stdout("noise", dump), 206);
  EXPECT_EQ(_curl_status_from_stdout("", "HTTP/1.1 odd\r\n"), 0);
  EXPECT_EQ(_curl_status_from_stdout("", ""), 0);
}

TEST_F(CurlTransport, FetchesFromARealServer) {
  origin::ScriptedServer server;
  server.serve("/f", "0123456789", {{"ETag", "x"}});
  server.script("/gone", {{.status = 404, .headers = {}, .body = "error text"}});
  CollectingSink sink;
  const HttpHead head = _curl_request({server.url() + "/f", {{"Range", "bytes=2-5"}}}, 5.0, sink);
  EXPECT_EQ(head.status, 206);
  EXPECT_EQ(*head.headers.find_any_case("ETag"), "x");
  EXPECT_EQ(sink.body, "2345");
  const auto failure = caught<HTTPError>([&] { _curl_request({server.url() + "/gone", {}}, 5.0, sink); });
  EXPECT_EQ(failure.code, 404);
  EXPECT_EQ(failure.body, "error text");
  auto file = open_file(dir.path("f"));
  file.write("ab");
  EXPECT_EQ(_curl_download_to_file({server.url() + "/f", {}}, file, 5.0).status, 200);
  file.write("!");
  EXPECT_EQ(dir.read("f"), "ab0123456789!");
}

TEST_F(CurlTransport, EndsABodyWithoutEnd) {
  origin::ScriptedServer server;
  server.serve("/endless", std::string(1 << 20, 'x'));
  const Request request{server.url() + "/endless", {}};
  CollectingSink sink;
  sink.bounded_to = 1000;
  EXPECT_EQ(_curl_request(request, 5.0, sink).status, 200);
  EXPECT_EQ(sink.body.size(), 1001u);
  auto file = open_file(dir.path("f"));
  EXPECT_EQ(_curl_download_to_file(request, file, 5.0, 1000).status, 200);
  EXPECT_EQ(dir.read("f").size(), 5 * 1000u);  // what its five tries may bring
  // A disk that takes nothing is told apart by how little has come.
  auto full = open_file("/dev/full");
  EXPECT_THAT(failure_of([&] { _curl_download_to_file(request, full, 5.0, 1000); }),
              ::testing::HasSubstr("No space left on device"));
}

TEST_F(CurlTransport, TellsHowCurlFailedAndLeavesNoTemporaryFile) {
  const testing::TempDir temporary;
  const testing::ScopedEnvironment watched("TMPDIR", temporary.path());
  CollectingSink sink;
  auto file = open_file(dir.path("f"));
  const auto requested = [&] { return failure_of([&] { _curl_request(DATA_FILE, 2.0, sink); }); };
  const auto downloaded = [&] { return failure_of([&] { _curl_download_to_file(DATA_FILE, file, 2.0); }); };
  fake_curl("echo 'curl: (28) timed out' >&2; printf 000; exit 28");
  EXPECT_EQ(requested(), "URLError: curl: (28) timed out");
  fake_curl("printf 404; exit 22");
  EXPECT_EQ(requested(), "HTTPError: HTTP 404");
  fake_curl("exit 7");
  EXPECT_EQ(requested(), "URLError: curl exited with status 7");
  EXPECT_THAT(bin.read("curl.args"), HasSubstr(temporary.path("tidalcrest-curl-")));
  EXPECT_TRUE(std::filesystem::is_empty(temporary.path()));
  EXPECT_EQ(downloaded(), "ConnectionError: curl exited with status 7");
  fake_curl("printf part; printf 'curl: (28) timed out\\n\\nTIDALCREST_HTTP_STATUS:000\\n' >&2; exit 28");
  EXPECT_EQ(downloaded(), "ConnectionError: curl: (28) timed out");
  EXPECT_EQ(dir.read("f"), "part");
  EXPECT_THAT(bin.read("curl.args"),
              HasSubstr("\n-o\n-\n-w\n%{stderr}\nTIDALCREST_HTTP_STATUS:%{http_code}\n\n-H\n"));
  fake_curl("printf 'TIDALCREST_HTTP_STATUS:503\\n' >&2; exit 22");
  EXPECT_EQ(_curl_download_to_file(DATA_FILE, file, 2.0).status, 503);
  fake_curl("exit 0");
  EXPECT_EQ(_curl_download_to_file(DATA_FILE, file, 2.0).status, 0);
}

TEST_F(CurlTransport, AFullDiskIsNoNetworkFailure) {
  fake_curl("printf part; echo 'curl: (23) Failure writing output' >&2; exit 23");
  auto full = open_file("/dev/full");
  const auto failure = caught<OSError>([&] { _curl_download_to_file(DATA_FILE, full, 2.0); });
  EXPECT_STREQ(failure.type_name(), "OSError");  // none of the network
  EXPECT_EQ(failure.error_number(), ENOSPC);
  auto file = open_file(dir.path("f"));
  EXPECT_EQ(failure_of([&] { _curl_download_to_file(DATA_FILE, file, 2.0); }),
            "OSError: curl: (23) Failure writing output");
  EXPECT_EQ(dir.read("f"), "part");  // as curl left it
}

TEST_F(CurlTransport, AFullTemporaryVolumeEndsTheRequest) {
  HttpClient client(seams);
  CollectingSink sink;
  const auto requested = [&] {
    return failure_of([&] { client._http_get_public_to(DATA_FILE.full_url, 0, -1, "curl", sink); });
  };
  fake_curl("echo 'curl: (23) Failure writing output' >&2; printf 200; exit 23");
  EXPECT_EQ(requested(), "OSError: curl: (23) Failure writing output");
  for (const char* unreadable : {"-D", "-o"}) {
    fake_curl(
        fmt::format("while [ \"$1\" != {} ]; do shift; done; ln -s \"$2\" \"$2\"; printf 200", unreadable));
    EXPECT_THAT(requested(), HasSubstr("Too many levels of symbolic links"));
  }
  const testing::ScopedEnvironment full("TMPDIR", "/proc");  // a directory that takes no file
  EXPECT_THAT(requested(), HasSubstr("temporary directory /proc/tidalcrest-curl-"));
  EXPECT_TRUE(backoff.waits().empty());
}

TEST_F(CurlTransport, KnowsHowCurlEndedWhereTheHostReapsEveryChild) {
  const auto signal_before = signal(SIGCHLD, SIG_IGN);
  const ScopeExit restored([&] { signal(SIGCHLD, signal_before); });
  auto file = open_file(dir.path("f"));
  const auto downloaded = [&] { return failure_of([&] { _curl_download_to_file(DATA_FILE, file, 2.0); }); };
  fake_curl("printf whole; printf '\nTIDALCREST_HTTP_STATUS:200\n' >&2");
  EXPECT_EQ(_curl_download_to_file(DATA_FILE, file, 2.0).status, 200);
  fake_curl("printf 'curl: (18) cut short\n\nTIDALCREST_HTTP_STATUS:200\n' >&2; exit 18");
  EXPECT_EQ(downloaded(), "ConnectionError: curl: (18) cut short");
  fake_curl("kill -9 $$");
  EXPECT_EQ(downloaded(), "ConnectionError: curl exited with status -1");
}

TEST_F(CurlTransport, AStopRequestEndsTheChild) {
  fake_curl("exec sleep 60");
  std::atomic<int> asked = 0;
  const ScopedBackoffContext context({.stop_requested = [&asked] { return ++asked > 2; }});
  HttpClient client(seams);
  auto file = open_file(dir.path("f"));
  CollectingSink sink;
  EXPECT_THROW(client._http_get_public_to(DATA_FILE.full_url, 0, -1, "curl", sink), SyncBackoffCancelled);
  EXPECT_THROW(client._download_request_to_file(DATA_FILE, file, sink, 2.0, "curl"), SyncBackoffCancelled);
  EXPECT_TRUE(backoff.waits().empty());
}

}  // namespace
}  // namespace tidalcrest::sync
