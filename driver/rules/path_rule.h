// The tries of path patterns behind one event type's rules: a forward trie of rules anchored at
// the start of a path (\REGISTRY\USER\*: that key and everything below it) and a reverse trie of
// rules that name the last components of a path (*\cmd.exe). A match walks the components of the
// path under test through both, so it costs one hash and one child lookup per component, however
// many rules there are. Components compare without regard to case.
//
// Every routine here runs at PASSIVE_LEVEL. The tries of one PathRuleMgr are guarded by its
// executive resource, taken inside a critical region: exclusive to add and to free, shared to
// match, so matches run side by side.
#pragma once

#include "platform/nt.h"

#define SK_PATH_RULE_MGR_INITED 0x1
#define SK_PATH_RULE_TERMINAL 0x1  // PATH_RULE_NODE.Flags: a rule ends at this node

// One component of one or more rules, allocated (tag "Terp") together with its text.
typedef struct _PATH_RULE_NODE {
  LIST_ENTRY SiblingLink;   // in the parent's (or the root's) children list, newest first
  LIST_ENTRY Children;      // the next components; pairwise different without regard to case
  LIST_ENTRY AllNodesLink;  // in PathRuleMgr.AllNodes, for freeing
  ULONG Hash;               // RtlHashUnicodeString of Component, case-insensitive, X65599
  USHORT Flags;             // SK_PATH_RULE_TERMINAL
  USHORT Length;            // bytes of Component
  WCHAR Component[1];       // Length bytes, no backslash, not terminated
} PATH_RULE_NODE, *PPATH_RULE_NODE;

// A slot of the child index: the node Child under the parent Parent (a node's Children list head,
// or one of the roots). An empty slot has a null Child.
typedef struct _SK_RULE_CHILD_SLOT {
  PLIST_ENTRY Parent;
  PPATH_RULE_NODE Child;
} SK_RULE_CHILD_SLOT, *PSK_RULE_CHILD_SLOT;

typedef struct PathRuleMgr {
  USHORT TypeCode;  // SK_RECORD_PATH_RULE_MGR
  USHORT Size;
  volatile LONG Flags;  // SK_PATH_RULE_MGR_INITED
  LIST_ENTRY AllNodes;  // every PATH_RULE_NODE of both tries
  ULONG ForwardCount;   // rules added to the forward trie (an add of a rule already there counts too)
  ULONG ReverseCount;   // rules added to the reverse trie
  LIST_ENTRY ForwardRoot;  // first-level children of the forward trie
  LIST_ENTRY ReverseRoot;  // first-level children of the reverse trie
  ERESOURCE Lock;  // guards everything above and the index below; inside a critical region
  // The child index: every node of both tries by (parent, hash), open addressing with linear
  // probing, never more than half full. The children lists are the tries; the index only finds a
  // child in one probe instead of a walk of its parent's list, so that the reverse trie's root,
  // which holds one child per program or DLL name, costs no more to search than a node with a few.
  PSK_RULE_CHILD_SLOT Index;  // pool of tag "Teri", or null while the tries are empty
  ULONG IndexCapacity;        // slots, a power of two
  ULONG IndexCount;           // slots in use: the number of nodes
} PathRuleMgr;

NTSTATUS skt_InitPathRuleMgr(PathRuleMgr *Rules);
// Frees every node and the index; the record is zero afterwards. The caller makes sure that no add
// or match is running on it.
NTSTATUS skt_UninitPathRuleMgr(PathRuleMgr *Rules);
// Checks a pattern: "*" first makes a suffix rule (*IsSuffix TRUE) and nothing else is looked at;
// otherwise a "*" may stand only as the last character. An empty pattern, a second star or a star
// elsewhere is STATUS_INVALID_PARAMETER.
NTSTATUS skt_CheckPathRule(PCUNICODE_STRING Pattern, BOOLEAN *IsSuffix);
// Splits Path from its end: FirstName is its last component (one trailing backslash ignored),
// RemainingName everything before the backslash in front of it. A path without such a backslash
// at an index above 0 is all first name, a leading backslash included. Both point into Path.
VOID skt_DissectLastName(PCUNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName);
// Splits Path from its start as FsRtlDissectName does (one leading backslash ignored; FirstName up to
// the next backslash, RemainingName everything after that one backslash), without it: its reference
// page names no Windows version, and Sentrel loads on Windows 7. Both point into Path.
VOID skt_DissectFirstName(PCUNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName);
// Adds one checked pattern; a rule added twice leaves the tries as they were but counts again.
NTSTATUS skt_AddPathRule(PathRuleMgr *Rules, PCUNICODE_STRING Pattern);
// STATUS_SUCCESS when Path matches a rule of either trie, else STATUS_NOT_FOUND. No allocation.
NTSTATUS skt_MatchPathRule(PathRuleMgr *Rules, PCUNICODE_STRING Path);
