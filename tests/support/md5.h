// MD5 of the tests, written from RFC 1321 ("The MD5 Message-Digest Algorithm") and apart from the
// library's own, so that one mistake cannot be on both sides of a handshake.
//
//   EXPECT_EQ(ToHex(Md5(ToBytes("abc")), ""), "900150983cd24fb0d6963f7d28e17f72");
#pragma once

#include "support/bytes.h"

namespace TQ::test {

/// The 16 bytes of the digest.
Bytes Md5(const Bytes& message);

}  // namespace TQ::test
