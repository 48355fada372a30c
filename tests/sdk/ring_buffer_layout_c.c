/* The ring-buffer layout header compiled as C11: its static assertions hold here too, and the
 * function below lets ring_reader_test.cpp compare what C sees with what C++ sees. */
#include "sentrel/ring_buffer.h"

/* In this order: sizeof(RB_SLOT_HEADER) and the offsets of State, ConsumerWord, WriteOffset and
 * Reserved; sizeof(RING_BUF_MAP_INFO) and the offsets of BufferCount, Reserved and UserAddress;
 * RING_BUF_MAP_INFO_SIZE(3); RB_MAX_PACKET_LENGTH; the three states. */
#define RING_C_LAYOUT_COUNT 14
void ring_c_Layout(SK_UINT32 Out[RING_C_LAYOUT_COUNT]) {
  SK_UINT32 Layout[RING_C_LAYOUT_COUNT] = {
      sizeof(RB_SLOT_HEADER),
      SK_OFFSETOF(RB_SLOT_HEADER, State),
      SK_OFFSETOF(RB_SLOT_HEADER, ConsumerWord),
      SK_OFFSETOF(RB_SLOT_HEADER, WriteOffset),
      SK_OFFSETOF(RB_SLOT_HEADER, Reserved),
      sizeof(RING_BUF_MAP_INFO),
      SK_OFFSETOF(RING_BUF_MAP_INFO, BufferCount),
      SK_OFFSETOF(RING_BUF_MAP_INFO, Reserved),
      SK_OFFSETOF(RING_BUF_MAP_INFO, UserAddress),
      RING_BUF_MAP_INFO_SIZE(3),
      RB_MAX_PACKET_LENGTH,
      RB_SLOT_FREE,
      RB_SLOT_WRITING,
      RB_SLOT_READING,
  };
  SK_UINT32 Index;
  for (Index = 0; Index < RING_C_LAYOUT_COUNT; ++Index) Out[Index] = Layout[Index];
}
