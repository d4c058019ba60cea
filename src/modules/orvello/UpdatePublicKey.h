#pragma once

#include <cstddef>

// The raw Ed25519 public key that library updates must be signed with. Defined by a source that
// CMake generates from ORVELLO_UPDATE_PUBLIC_KEY (UpdatePublicKey.cpp.in), one per module build;
// size is 0 in a module built without a key.
namespace UpdatePublicKey {
extern const unsigned char data[];
extern const std::size_t size;
} // namespace UpdatePublicKey
