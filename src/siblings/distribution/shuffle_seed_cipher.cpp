#include "siblings/distribution/shuffle_seed_cipher.hpp"

#include <fmt/format.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <array>
#include <memory>
#include <string>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::sync::shuffle_seed_state {
namespace {

constexpr std::size_t NONCE_BYTES = 12;
constexpr std::size_t SEED_BYTES = 32;
constexpr std::size_t TAG_BYTES = 16;
static_assert(NONCE_BYTES + SEED_BYTES + TAG_BYTES == SHUFFLE_SEED_BYTES);

constexpr std::string_view KEY_SALT = "tidalcrest/shuffle-seed/market-era-v1";

// 32 bytes that leave no copy behind.
class SecretBuffer {
 public:
  SecretBuffer() = default;
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;
  ~SecretBuffer() { OPENSSL_cleanse(_bytes.data(), _bytes.size()); }
  unsigned char* data() noexcept { return _bytes.data(); }
  std::size_t size() const noexcept { return _bytes.size(); }

 private:
  std::array<unsigned char, 32> _bytes{};
};

template <auto release>
struct Release {
  template <class T>
  void operator()(T* object) const noexcept {
    release(object);
  }
};
using Kdf = std::unique_ptr<EVP_KDF, Release<EVP_KDF_free>>;
using KdfContext = std::unique_ptr<EVP_KDF_CTX, Release<EVP_KDF_CTX_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Release<EVP_CIPHER_CTX_free>>;

void require(bool succeeded, const char* step) {
  if (!succeeded)
    throw ShuffleSeedStateError(fmt::format("shuffle seed {} failed in the crypto library", step));
}

OSSL_PARAM octets(const char* name, std::string_view value) {
  return OSSL_PARAM_construct_octet_string(name, const_cast<char*>(value.data()), value.size());
}

const unsigned char* bytes(std::string_view value) {
  return reinterpret_cast<const unsigned char*>(value.data());
}

void derive_key(SecretBuffer& key, std::string_view wallet_secret, std::int64_t market_id,
                std::int64_t era_number) {
  const Kdf kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
  const KdfContext context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  require(context != nullptr, "key derivation");
  const std::string info = fmt::format("market={};era={}", market_id, era_number);
  std::string digest = "SHA256";
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0),
      octets(OSSL_KDF_PARAM_KEY, wallet_secret),
      octets(OSSL_KDF_PARAM_SALT, KEY_SALT),
      octets(OSSL_KDF_PARAM_INFO, info),
      OSSL_PARAM_construct_end(),
  };
  require(EVP_KDF_derive(context.get(), key.data(), key.size(), parameters) == 1, "key derivation");
}

}  // namespace

bool shuffle_seed_opens(std::string_view ciphertext, std::string_view wallet_secret, std::int64_t market_id,
                        std::int64_t era_number) {
  SecretBuffer key;
  derive_key(key, wallet_secret, market_id, era_number);

  const std::string_view nonce = ciphertext.substr(0, NONCE_BYTES);
  const std::string_view sealed = ciphertext.substr(NONCE_BYTES, SEED_BYTES);
  std::string tag(ciphertext.substr(NONCE_BYTES + SEED_BYTES));
  const std::string associated =
      fmt::format("tidalcrest-shuffle-seed|{}|{}|market-era-v1", market_id, era_number);

  const CipherContext context(EVP_CIPHER_CTX_new());
  require(context != nullptr, "decryption");
  SecretBuffer seed;
  int written = 0;
  require(EVP_DecryptInit_ex2(context.get(), EVP_aes_256_gcm(), key.data(), bytes(nonce), nullptr) == 1 &&
              EVP_DecryptUpdate(context.get(), nullptr, &written, bytes(associated),
                                static_cast<int>(associated.size())) == 1 &&
              EVP_DecryptUpdate(context.get(), seed.data(), &written, bytes(sealed),
                                static_cast<int>(sealed.size())) == 1 &&
              EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()),
                                  tag.data()) == 1,
          "decryption");
  return EVP_DecryptFinal_ex(context.get(), seed.data() + written, &written) == 1;
}

}  // namespace tidalcrest::sync::shuffle_seed_state
