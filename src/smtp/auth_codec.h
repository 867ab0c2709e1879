// Bounds of the authentication encoders and builders. Inputs longer than
// these are cut, so every output fits the buffer its caller is told to give.
#pragma once

#include <cstddef>

namespace kemail::auth {

// Base64 text decoded at once: a whole reply line (1028 bytes) less its code.
constexpr size_t kDecodeInputMax = 1027;
// Room for the decoding of kDecodeInputMax characters and a NUL.
constexpr size_t kDecodeOutputSize = (kDecodeInputMax + 3) / 4 * 3 + 1;

// Encoded size of n bytes, without the NUL.
constexpr size_t encoded_length(size_t n) { return (n + 2) / 3 * 4; }

// The LOGIN builder's outputs hold 256 bytes each: 189 input bytes encode
// to 252 characters.
constexpr size_t kLoginOutputSize = 256;
constexpr size_t kLoginInputMax = 189;
static_assert(encoded_length(kLoginInputMax) < kLoginOutputSize);

// The PLAIN builder works in a 512-byte buffer, of which the encoder needs
// 3 bytes behind the text: user, NUL, user, NUL, password must fit 509.
constexpr size_t kPlainWorkSize = 512;
constexpr size_t kPlainUserMax = 168;
constexpr size_t kPlainPasswordMax = 168;
static_assert(2 * kPlainUserMax + kPlainPasswordMax + 2 + 3 <= kPlainWorkSize);
constexpr size_t kPlainOutputSize = encoded_length(2 * kPlainUserMax + kPlainPasswordMax + 2) + 1;

// The CRAM-MD5 response "user hexdigest" is cut at 189 bytes so that its
// encoding, like the LOGIN outputs, fits 256 bytes.
constexpr size_t kCramTextMax = 189;
constexpr size_t kCramOutputSize = 256;
static_assert(encoded_length(kCramTextMax) < kCramOutputSize);

}  // namespace kemail::auth
