#include "origin/seed_sealing.hpp"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <memory>

#include "tidalcrest/sync/errors.hpp"

namespace tidalcrest::origin {
namespace {

constexpr std::size_t SECRET_BYTES = 32;
constexpr std::size_t NONCE_BYTES = 12;
constexpr std::size_t TAG_BYTES = 16;

unsigned char* data_of(std::string& bytes) { return reinterpret_cast<unsigned char*>(bytes.data()); }
const unsigned char* data_of(const std::string& bytes) {
  return reinterpret_cast<const unsigned char*>(bytes.data());
}

void require(bool succeeded, const char* step) {
  if (!succeeded) throw sync::RuntimeError(std::string("sealing a shuffle seed: ") + step);
}

void require_length(const std::string& bytes, std::size_t length, const char* what) {
  if (bytes.size() != length) {
    throw sync::ValueError(std::string(what) + " must be exactly " + std::to_string(length) + " bytes");
  }
}

std::string derive_key(std::string secret, std::string salt, std::string info) {
  const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr),
                                                              &EVP_KDF_free);
  const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context(EVP_KDF_CTX_new(kdf.get()),
                                                                          &EVP_KDF_CTX_free);
  std::string digest = "SHA256";
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, secret.data(), secret.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, salt.data(), salt.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info.data(), info.size()),
      OSSL_PARAM_construct_end()};
  std::string key(SECRET_BYTES, '\0');
  require(EVP_KDF_derive(context.get(), data_of(key), key.size(), parameters) > 0, "key derivation");
  return key;
}

}  // namespace

std::string seal_shuffle_seed(const std::string& wallet_secret, std::int64_t market_id,
                              std::int64_t era_number, const std::string& seed, const std::string& nonce) {
  require_length(wallet_secret, SECRET_BYTES, "wallet_secret");
  require_length(seed, SECRET_BYTES, "seed");
  require_length(nonce, NONCE_BYTES, "nonce");
  const auto market = std::to_string(market_id);
  const auto era = std::to_string(era_number);
  const auto key =
      derive_key(wallet_secret, "tidalcrest/shuffle-seed/market-era-v1", "market=" + market + ";era=" + era);
  const auto associated = "tidalcrest-shuffle-seed|" + market + "|" + era + "|market-era-v1";

  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> owner(EVP_CIPHER_CTX_new(),
                                                                              &EVP_CIPHER_CTX_free);
  auto* context = owner.get();
  std::string ciphertext(seed.size(), '\0');
  std::string tag(TAG_BYTES, '\0');
  int count = 0;
  require(EVP_EncryptInit_ex(context, EVP_aes_256_gcm(), nullptr, data_of(key), data_of(nonce)) > 0, "start");
  require(EVP_EncryptUpdate(context, nullptr, &count, data_of(associated),
                            static_cast<int>(associated.size())) > 0,
          "associated data");
  require(EVP_EncryptUpdate(context, data_of(ciphertext), &count, data_of(seed),
                            static_cast<int>(seed.size())) > 0,
          "encryption");
  require(EVP_EncryptFinal_ex(context, data_of(ciphertext) + count, &count) > 0, "end");
  require(EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_GCM_GET_TAG, TAG_BYTES, tag.data()) > 0, "tag");
  return nonce + ciphertext + tag;
}

}  // namespace tidalcrest::origin
