// Event types: the 32-bit code that says what an event packet reports, the bit that enables it in
// the driver's event mask, and the names the driver prints and consumers show.
#pragma once

#include "sentrel/wire_types.h"

// The value of an event type is the index of its name in the name table below.
typedef SK_UINT32 SK_EVENT_TYPE;

#define ET_PROCESS_CREATE 0u
#define ET_REMOTE_THREAD_CREATE 1u
#define ET_PROCESS_ACCESS 2u
#define ET_DISK_RAW_ACCESS 3u
#define ET_IMAGE_LOAD 4u
#define ET_DRIVER_LOAD 5u
#define ET_FILE_CREATE 6u
#define ET_NET_CONNECT 7u
#define ET_NET_LISTEN 8u
#define ET_NET_ACCEPT 9u
#define ET_REGISTRY_KEY_CREATE 10u
#define ET_REGISTRY_KEY_MODIFY 11u
#define ET_REGISTRY_VALUE_CREATE 12u
#define ET_REGISTRY_VALUE_MODIFY 13u
#define ET_NAMED_PIPE_CREATE 14u
#define ET_NAMED_PIPE_CONNECT 15u
#define ET_NET_DNS 16u
#define ET_SERVICE_CREATE 17u
#define ET_SCRIPT_EXECUTE 18u

// The named event types, 0 to SK_EVENT_TYPE_COUNT - 1.
#define SK_EVENT_TYPE_COUNT 19u
// Event types the driver accepts (a rule manager has a slot for each): the named ones and one more,
// SK_EVENT_TYPE_COUNT itself, which has an empty name.
#define SK_EVENT_TYPE_SLOTS 20u

// Enabled-event mask: events of a type are wanted when the type's bit is set.
#define SK_EVENT_MASK_BIT(EventType) ((SK_UINT64)1 << (EventType))
// Every type enabled: the mask the driver starts with.
#define SK_EVENT_MASK_ALL ((SK_UINT64)0xFFFFFFFFFFFFFFFFull)

SK_STATIC_ASSERT(ET_SCRIPT_EXECUTE + 1 == SK_EVENT_TYPE_COUNT, "the last named event type");
SK_STATIC_ASSERT(SK_EVENT_TYPE_SLOTS <= 64, "every accepted event type has a bit in the mask");
SK_STATIC_ASSERT(SK_EVENT_MASK_BIT(ET_REMOTE_THREAD_CREATE) == 0x2, "remote thread bit");
SK_STATIC_ASSERT(SK_EVENT_MASK_BIT(ET_IMAGE_LOAD) == 0x10, "image load bit");
SK_STATIC_ASSERT(SK_EVENT_MASK_BIT(ET_DRIVER_LOAD) == 0x20, "driver load bit");

// Every named event type in value order, for tables that must follow the enumeration: X(name) is
// expanded once per type.
#define SK_FOR_EACH_EVENT_TYPE(X)                                                                     \
  X(ET_PROCESS_CREATE) X(ET_REMOTE_THREAD_CREATE) X(ET_PROCESS_ACCESS) X(ET_DISK_RAW_ACCESS)          \
  X(ET_IMAGE_LOAD) X(ET_DRIVER_LOAD) X(ET_FILE_CREATE) X(ET_NET_CONNECT) X(ET_NET_LISTEN)            \
  X(ET_NET_ACCEPT) X(ET_REGISTRY_KEY_CREATE) X(ET_REGISTRY_KEY_MODIFY) X(ET_REGISTRY_VALUE_CREATE)  \
  X(ET_REGISTRY_VALUE_MODIFY) X(ET_NAMED_PIPE_CREATE) X(ET_NAMED_PIPE_CONNECT) X(ET_NET_DNS)        \
  X(ET_SERVICE_CREATE) X(ET_SCRIPT_EXECUTE)

// The list holds every named type once, each at the position of its value.
static inline void sk_EventTypeListCheck(void) {
#define SK_EVENT_TYPE_POSITION(Name) SK_POSITION_OF_##Name,
#define SK_EVENT_TYPE_IN_PLACE(Name) &&SK_POSITION_OF_##Name == (Name)
  enum { SK_FOR_EACH_EVENT_TYPE(SK_EVENT_TYPE_POSITION) SK_POSITION_END };
  SK_STATIC_ASSERT(SK_POSITION_END == SK_EVENT_TYPE_COUNT, "every named event type is listed once");
  SK_STATIC_ASSERT(1 SK_FOR_EACH_EVENT_TYPE(SK_EVENT_TYPE_IN_PLACE), "the list is in value order");
#undef SK_EVENT_TYPE_POSITION
#undef SK_EVENT_TYPE_IN_PLACE
}

// The name of an event type ("ET_IMAGE_LOAD"); "" for SK_EVENT_TYPE_COUNT, the unnamed slot; null
// for a value that is no event type. The names are constant data: any IRQL, any mode.
static inline const char* sk_EventTypeName(SK_UINT32 EventType) {
#define SK_EVENT_TYPE_NAME_TEXT(Name) #Name,
  static const char* const Names[SK_EVENT_TYPE_SLOTS] = {SK_FOR_EACH_EVENT_TYPE(SK_EVENT_TYPE_NAME_TEXT) ""};
#undef SK_EVENT_TYPE_NAME_TEXT
  return EventType < SK_EVENT_TYPE_SLOTS ? Names[EventType] : 0;
}

// The event type whose name is the NameLength characters at Name (no terminator needed), compared
// exactly. Returns 1 and sets *EventType when found; 0, leaving *EventType alone, when no named
// type has that name (the empty name included).
static inline int sk_EventTypeFromName(const char* Name, SK_UINT32 NameLength,
                                       SK_EVENT_TYPE* EventType) {
  SK_UINT32 Type;
  if (Name == 0 || NameLength == 0) return 0;
  for (Type = 0; Type < SK_EVENT_TYPE_COUNT; ++Type) {
    const char* Candidate = sk_EventTypeName(Type);
    SK_UINT32 Index = 0;
    while (Index < NameLength && Candidate[Index] != '\0' && Candidate[Index] == Name[Index]) {
      ++Index;
    }
    if (Index == NameLength && Candidate[Index] == '\0') {
      *EventType = Type;
      return 1;
    }
  }
  return 0;
}
