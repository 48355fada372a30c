// The consumer's white rules, as IOCTL_SK_ADD_WHITE_RULE carries them: a sequence of records, one
// rule each, in the direct buffer of the request; the request's input length is the length of the
// whole sequence. Records need not be aligned. Each names the event type it suppresses and a path
// pattern: "*\name.exe" (a suffix: the last components of a path) or "\A\B" and "\A\B\*" (a prefix:
// that path and everything below it), compared without regard to case.
#pragma once

#include "sentrel/event_types.h"

typedef struct _WHITE_RULE_NODE {
  SK_UINT16 Length;      // bytes of Path, no terminator
  SK_UINT16 NextOffset;  // from this record's start to the next one's; 0 in the last record
  SK_UINT32 EventType;   // an SK_EVENT_TYPE, 0 to SK_EVENT_TYPE_SLOTS - 1
  SK_UINT16 Path[2];     // Length bytes of UTF-16LE, the first two characters declared here
} WHITE_RULE_NODE, *PWHITE_RULE_NODE;

// A record's header: everything before the path.
#define WHITE_RULE_NODE_HEADER_SIZE 8u
// The declared size of a record, which the driver requires of the space left for each record: the
// header and the first two characters.
#define WHITE_RULE_NODE_SIZE 12u
// The shortest request that carries rules: one record and at least one byte more.
#define WHITE_RULE_REQUEST_MIN_LENGTH (WHITE_RULE_NODE_SIZE + 1u)

SK_STATIC_ASSERT(sizeof(WHITE_RULE_NODE) == WHITE_RULE_NODE_SIZE, "WHITE_RULE_NODE is 12 bytes");
SK_STATIC_ASSERT(SK_OFFSETOF(WHITE_RULE_NODE, Length) == 0, "WHITE_RULE_NODE.Length");
SK_STATIC_ASSERT(SK_OFFSETOF(WHITE_RULE_NODE, NextOffset) == 2, "WHITE_RULE_NODE.NextOffset");
SK_STATIC_ASSERT(SK_OFFSETOF(WHITE_RULE_NODE, EventType) == 4, "WHITE_RULE_NODE.EventType");
SK_STATIC_ASSERT(SK_OFFSETOF(WHITE_RULE_NODE, Path) == WHITE_RULE_NODE_HEADER_SIZE, "WHITE_RULE_NODE.Path");
