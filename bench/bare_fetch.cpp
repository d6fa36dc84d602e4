// The least that a client can do for the same promise, as a yardstick: eight threads fetch the files of a
// list with libcurl and hash them while they arrive, then every file is hashed once more from the disk on all
// cores, and the file system is flushed. No manifest, no resume, no retries, no publication.
#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/digest.hpp"

namespace {

using tidalcrest::sync::Sha256;

constexpr unsigned FETCHERS = 8;
constexpr long RECEIVE_BYTES = 512 << 10;

struct File {
  std::string sha256, path, url;
};

struct Arriving {
  int descriptor;
  Sha256 hash;
};

std::size_t take(char* bytes, std::size_t, std::size_t count, void* target) {
  auto& file = *static_cast<Arriving*>(target);
  file.hash.update({bytes, count});
  return ::write(file.descriptor, bytes, count) == static_cast<ssize_t>(count) ? count : 0;
}

void require(bool holds, const File& file) {
  if (!holds) throw std::runtime_error("failed: " + file.path);
}

void fetch(CURL* curl, const File& file, const std::string& target) {
  std::filesystem::create_directories(std::filesystem::path(target).parent_path());
  Arriving arriving{::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666), {}};
  require(arriving.descriptor >= 0, file);
  curl_easy_setopt(curl, CURLOPT_URL, file.url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &arriving);
  require(curl_easy_perform(curl) == CURLE_OK, file);
  ::close(arriving.descriptor);
  require(arriving.hash.hexdigest() == file.sha256, file);
}

void prove(const File& file, const std::string& target, std::vector<char>& buffer) {
  const int descriptor = ::open(target.c_str(), O_RDONLY | O_CLOEXEC);
  Sha256 hash;
  for (ssize_t count = 0; (count = ::read(descriptor, buffer.data(), buffer.size())) > 0;)
    hash.update({buffer.data(), static_cast<std::size_t>(count)});
  ::close(descriptor);
  require(hash.hexdigest() == file.sha256, file);
}

template <class Work>
void on_threads(unsigned threads, const Work& work) {
  std::vector<std::thread> running;
  for (unsigned i = 0; i < threads; ++i) {
    running.emplace_back([&work] {
      try {
        work();
      } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        std::quick_exit(1);
      }
    });
  }
  for (auto& thread : running) thread.join();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string directory = argv[1];
  std::vector<File> files;
  std::ifstream list(argv[2]);
  for (File file; list >> file.sha256 >> file.path >> file.url;) files.push_back(file);
  const auto target = [&directory](const File& file) { return directory + "/" + file.path; };

  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::atomic<std::size_t> next = 0;
  on_threads(FETCHERS, [&] {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, RECEIVE_BYTES);
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    for (std::size_t i = 0; (i = next++) < files.size();) fetch(curl, files[i], target(files[i]));
    curl_easy_cleanup(curl);
  });
  next = 0;
  on_threads(std::thread::hardware_concurrency(), [&] {
    std::vector<char> buffer(1 << 20);
    for (std::size_t i = 0; (i = next++) < files.size();) prove(files[i], target(files[i]), buffer);
  });
  const int root = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return ::syncfs(root) == 0 ? 0 : 1;
}
