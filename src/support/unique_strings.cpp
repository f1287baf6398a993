#include "support/unique_strings.h"

#include <array>
#include <cstdint>
#include <random>

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "support/path_component.h"
#include "support/temporary_directory.h"

namespace symlift::support {

namespace {

// OpenSSL's own clean-up at exit runs before the pipeline's worker threads
// are joined (it registers itself later than the pool when first used on a
// worker) and drops the per-thread state of those threads, which is then
// lost. Without it, each thread's state is freed as the thread ends.
void initializeCrypto() {
  static const bool initialized = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
  (void)initialized;
}

}  // namespace

std::string SUPStrings::uniqueString() {
  initializeCrypto();
  std::array<unsigned char, 16> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    // The system's entropy source, should OpenSSL's generator be unavailable.
    std::random_device device;
    for (auto& byte : bytes) byte = static_cast<unsigned char>(device());
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes[i]);
  }
  return text;
}

std::string SUPStrings::uniqueZipFilePath() {
  return appendingPathComponent(temporaryDirectory(), uniqueString() + ".zip");
}

std::string SUPStrings::uniqueGZipFileName() { return appendingPathComponent(uniqueString(), "gz"); }

std::string SUPStrings::MD5HashForString(const std::string& string) {
  initializeCrypto();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(string.data(), string.size(), digest, &length, EVP_md5(), nullptr) != 1) return {};
  std::string text;
  text.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) text += fmt::format("{:02x}", digest[i]);
  return text;
}

}  // namespace symlift::support
