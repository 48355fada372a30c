#include "names/name_hash.h"

ULONG skt_HashBKDR(PCUNICODE_STRING String) {
  const CHAR *bytes = (const CHAR *)String->Buffer;
  ULONG h = 0;
  USHORT i;
  for (i = 0; i < String->Length; ++i) h = h * 131 + (ULONG)(LONG)bytes[i];
  return h;
}

ULONG skt_HashDJB(PCUNICODE_STRING String) {
  const CHAR *bytes = (const CHAR *)String->Buffer;
  ULONG h = 5381;
  USHORT i;
  for (i = 0; i < String->Length; ++i) h = h * 33 + (ULONG)(LONG)bytes[i];
  return h;
}
