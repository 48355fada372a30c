// Fuzz target: the consumer's white-rule records, as IOCTL_SK_ADD_WHITE_RULE hands them to the
// walk (sk_AddWhiteRuleFunction_Ioctl), on a started SentrelData in a simulated machine. Each input
// starts from an empty white rule set. Checked: the walk reads nothing outside the input (the
// sanitizers), it adds at most one rule per record it reaches and at least one when it reports
// success, its status is one a consumer can be given, and emptying the set frees every rule.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/pool_tags.h"
#include "core/sentrel_data.h"
#include "rules/rule_sets.h"
#include "sentrel/white_rule.h"
#include "world.h"

#define FUZZ_CHECK(cond, ...)                                  \
  do {                                                         \
    if (!(cond)) {                                             \
      std::fprintf(stderr, "white_rule_fuzz: " __VA_ARGS__);   \
      std::fprintf(stderr, "\n");                              \
      std::abort();                                            \
    }                                                          \
  } while (0)

namespace {

ntsim::World* world;

ntsim::World& Machine() {
  if (!world) {
    world = new ntsim::World();
    SkDriverObject = world->kernel().io.CreateDriverObject(u"\\Driver\\WhiteRuleFuzz", nullptr);
    FUZZ_CHECK(world->AsSystem(sk_InitSentrelData) == STATUS_SUCCESS, "SentrelData does not start");
  }
  return *world;
}

ULONG WhiteRules() {
  ULONG n = 0;
  for (const RuleNode& slot : SentrelData.WhiteRuleMgr.Slots) n += slot.Rules.ForwardCount + slot.Rules.ReverseCount;
  return n;
}

size_t TrieBlocks() {
  size_t n = 0;
  for (const ntsim::PoolBlock& block : world->kernel().pool.Outstanding()) {
    n += block.tag == SK_TAG_PATH_RULE_NODE || block.tag == SK_TAG_RULE_INDEX;
  }
  return n;
}

// The records the walk can reach: how many start inside the input with room for a whole header.
size_t RecordsReached(const uint8_t* data, size_t size) {
  size_t offset = 0, reached = 0;
  while (offset + WHITE_RULE_NODE_SIZE <= size) {
    ++reached;
    uint16_t next;
    std::memcpy(&next, data + offset + 2, sizeof next);
    if (next == 0) break;
    offset += next;
  }
  return reached;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ntsim::World& machine = Machine();
  if (size > 0x10000) return 0;
  machine.AsSystem([&] {
    sk_UninitRuleMgr(&SentrelData.WhiteRuleMgr);
    sk_InitRuleMgr(&SentrelData.WhiteRuleMgr);
    return 0;
  });
  static const size_t baseline = TrieBlocks();  // the black rule set's
  NTSTATUS status = machine.AsSystem(
      [&] { return sk_AddWhiteRuleFunction_Ioctl(const_cast<uint8_t*>(data), static_cast<ULONG>(size)); });
  ULONG added = WhiteRules();
  FUZZ_CHECK(added <= RecordsReached(data, size), "%lu rules from %zu records", (unsigned long)added,
             RecordsReached(data, size));
  FUZZ_CHECK(status != STATUS_SUCCESS || added >= 1, "success without a rule");
  FUZZ_CHECK(status == STATUS_SUCCESS || status < 0, "status %08x is no answer", (unsigned)status);
  machine.AsSystem([&] {
    sk_DelAllWhiteRule();
    return 0;
  });
  FUZZ_CHECK(TrieBlocks() == baseline, "the deleted rules left %zu blocks", TrieBlocks() - baseline);
  return 0;
}

bool FuzzReplayFinished() {
  ntsim::World& machine = Machine();
  if (machine.AsSystem(sk_UninitSentrelData) != STATUS_SUCCESS) return false;
  bool clean = machine.kernel().pool.Outstanding().empty();
  if (!clean) std::fprintf(stderr, "white_rule_fuzz: pool left after the stop\n");
  SkDriverObject = nullptr;
  delete world;  // the machine's own threads end with it
  world = nullptr;
  return clean;
}
