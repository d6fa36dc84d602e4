// What one `fstatat` of a member costs: goes through the paths of a list below a directory, several rounds,
// each with the directory of the member open, and prints the nanoseconds of the median round per member.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  struct Member {
    int directory;
    std::string name;
  };
  std::map<std::string, int> directories;
  std::vector<Member> members;
  std::ifstream list(argv[2]);
  for (std::string path; std::getline(list, path);) {
    path = std::string(argv[1]) + "/" + path;
    const auto slash = path.rfind('/');
    auto [at, fresh] = directories.try_emplace(path.substr(0, slash), -1);
    if (fresh) at->second = ::open(at->first.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    members.push_back({at->second, path.substr(slash + 1)});
  }
  std::vector<double> rounds;
  for (int round = 0; round < 5; ++round) {
    const auto started = std::chrono::steady_clock::now();
    for (const Member& member : members) {
      struct stat status {};
      if (::fstatat(member.directory, member.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return 1;
    }
    rounds.push_back(
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - started).count());
  }
  std::nth_element(rounds.begin(), rounds.begin() + 2, rounds.end());
  std::printf("%.1f\n", rounds[2] / static_cast<double>(std::max<std::size_t>(members.size(), 1)));
  return 0;
}
