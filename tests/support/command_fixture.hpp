#pragma once

#include <string>
#include <vector>

#include "support/command.hpp"
#include "support/sync_fixture.hpp"

namespace tidalcrest::sync::testing {

/// A data directory and an origin, and the command line between them.
class CommandFixture : public SyncFixture {
 public:
  CommandFixture() {
    secrets.write("token", origin.token());
    secrets.write("wallet", origin.wallet_secret());
  }

  using Arguments = std::vector<std::string>;
  /// A command that needs no server.
  Arguments local(const std::string& name, const Arguments& more = {}) const {
    return with({name, "--data-dir", data.path()}, more);
  }
  /// One that does.
  Arguments remote(const std::string& name, const Arguments& more = {}) const {
    return with({name, "--data-dir", data.path(), "--server-url", origin.server_url(), "--token-file",
                 secrets.path("token"), "--wallet-secret-file", secrets.path("wallet")},
                more);
  }

  struct Outcome {
    int code = 0;
    std::string output;
    std::string errors;
    Document json() const { return Document::parse(output); }
  };
  static Outcome run(const Arguments& arguments) {
    Command command(arguments);
    const int code = command.wait();
    return {code, command.output(), command.errors()};
  }

  TempDir secrets;

 private:
  static Arguments with(Arguments arguments, const Arguments& more) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
};

}  // namespace tidalcrest::sync::testing
