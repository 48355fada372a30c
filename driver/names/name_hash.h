// Byte hashes of counted strings, used together as the 64-bit keys of name tables. Each byte of
// the string's Length bytes counts as a signed 8-bit value widened to 32 bits; arithmetic wraps.
#pragma once

#include "platform/nt.h"

// h = h * 131 + b, from 0.
ULONG skt_HashBKDR(PCUNICODE_STRING String);
// h = h * 33 + b, from 5381.
ULONG skt_HashDJB(PCUNICODE_STRING String);
