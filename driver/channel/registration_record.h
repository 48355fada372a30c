// The record of a consumer or producer registration, kept by the driver: the consumer's in
// SentrelData, a producer's (an SK_CCB from the CCB lookaside list) hung on its handle.
#pragma once

#include "platform/nt.h"

#define SK_REGISTRATION_CONSUMER 0
#define SK_REGISTRATION_PRODUCER 1

typedef struct _SK_CCB {
  USHORT Tag;  // SK_RECORD_REGISTRATION
  USHORT Size;
  ULONG Kind;  // SK_REGISTRATION_CONSUMER or SK_REGISTRATION_PRODUCER
  GUID CommuId;
} SK_CCB, *PSK_CCB;
