// The diagnostic log: one filtering printer for every line the driver writes to the debugger.
// PrintLevel selects severities, TraceLevel selects modules; both follow the registry values
// "PrintLevel" and "TraceLevel" under the driver's Debug key, also while the driver runs.
#pragma once

#include "platform/nt.h"

// Severities: bits of PrintLevel.
#define SK_LEVEL_ERROR 1
#define SK_LEVEL_WARNING 2
#define SK_LEVEL_INFO 4
#define SK_LEVEL_EVENT_REPORT 8

// Modules: bits of TraceLevel. Every line names exactly one.
#define SK_TRACE_CORE 0x2
#define SK_TRACE_COMMU 0x4
#define SK_TRACE_MSG 0x8
#define SK_TRACE_TOOL 0x10
#define SK_TRACE_PATH 0x20
#define SK_TRACE_PROCESS 0x40
#define SK_TRACE_IMAGE 0x80
#define SK_TRACE_DOSNAME 0x100
#define SK_TRACE_STACKHOOK 0x200
#define SK_TRACE_LOGON 0x400
#define SK_TRACE_WHITERULE 0x800
#define SK_TRACE_INTERFACE 0x1000
#define SK_TRACE_PACKAGE 0x2000
#define SK_TRACE_REPORT 0x4000
#define SK_TRACE_CALLBACK 0x8000
#define SK_TRACE_RINGBUF 0x10000
#define SK_TRACE_RULE 0x20000
#define SK_TRACE_BLACKRULE 0x40000

extern ULONG PrintLevel;
extern ULONG TraceLevel;
extern ULONG TraceDepth;  // nesting depth of printed Entry lines; never below 0
extern PUNICODE_STRING DebugKeyPath;
extern LARGE_INTEGER DebugCallbackCookie;

// Decides whether a line is printed and, if so, prints its prefix: "[SK]", the severity's tag,
// "[T:0x<thread>] " and the indentation. Change is +1 for an Entry line (the caller raises the
// depth after printing), -1 for a leave line (the depth is lowered before the prefix), else 0.
BOOLEAN sk_LogPrefix(LONG Change, ULONG Severity, ULONG Module);
void sk_TraceEnter(ULONG Module, const char *Name);
void sk_TraceLeave(ULONG Module, const char *Name, NTSTATUS Status);
void sk_TraceLeaveAddress(ULONG Module, const char *Name, PVOID Address);

NTSTATUS sk_InitDebugLevel(PUNICODE_STRING RegistryPath);
NTSTATUS sk_UninitDebugLevel(void);
NTSTATUS sk_DebugRegistryCallback(PVOID CallbackContext, PVOID Argument1, PVOID Argument2);

// Whether a line of this severity and module would print: two loads and a compare, inline, so
// that a line whose level is off costs nothing more on the paths that run for every event.
static inline BOOLEAN sk_LogEnabled(ULONG Severity, ULONG Module) {
  if ((SK_READ_ONCE(PrintLevel) & Severity) != Severity) return FALSE;
  return (SK_READ_ONCE(TraceLevel) & Module) == Module || Severity == SK_LEVEL_EVENT_REPORT;
}

// Lines of a module. A source file defines SK_MODULE to its module bit before using these.
#define SK_PRINT(Severity, ...)                                                                          \
  do {                                                                                                   \
    if (sk_LogEnabled((Severity), SK_MODULE) && sk_LogPrefix(0, (Severity), SK_MODULE)) DbgPrint(__VA_ARGS__); \
  } while (0)
#define SK_ERROR(...) SK_PRINT(SK_LEVEL_ERROR, __VA_ARGS__)
#define SK_WARNING(...) SK_PRINT(SK_LEVEL_WARNING, __VA_ARGS__)
#define SK_INFO(...) SK_PRINT(SK_LEVEL_INFO, __VA_ARGS__)
// The usual failure line: the failing callee's name, " fail Status:%08lx\n".
#define SK_FAIL(Callee, Status) SK_ERROR(Callee " fail Status:%08lx\n", (Status))

// The trace pair: "<operation> Entry\n" on entry, "<operation> -> %08lx\n" on every exit.
#define SK_ENTER()                                                        \
  do {                                                                    \
    if (sk_LogEnabled(SK_LEVEL_INFO, SK_MODULE)) sk_TraceEnter(SK_MODULE, __func__); \
  } while (0)
#define SK_LEAVE(Status)                                                                   \
  do {                                                                                     \
    if (sk_LogEnabled(SK_LEVEL_INFO, SK_MODULE)) sk_TraceLeave(SK_MODULE, __func__, (Status)); \
  } while (0)
// The exit line of a routine that answers with an address.
#define SK_LEAVE_ADDRESS(Address)                                                                          \
  do {                                                                                                     \
    if (sk_LogEnabled(SK_LEVEL_INFO, SK_MODULE)) sk_TraceLeaveAddress(SK_MODULE, __func__, (PVOID)(Address)); \
  } while (0)
