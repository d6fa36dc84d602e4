#pragma once

#include <string>

namespace tidalcrest::cli {

/// The token of a file: its text without surrounding white space. Throws `OSError` for a file that cannot be
/// read and `ValueError` for one that holds no token or more than one line; no text repeats the content.
std::string read_token_file(const std::string& path);

/// The 32 bytes of a wallet secret, kept as raw bytes or as 64 hexadecimal digits. Throws as above.
std::string read_wallet_secret_file(const std::string& path);

}  // namespace tidalcrest::cli
