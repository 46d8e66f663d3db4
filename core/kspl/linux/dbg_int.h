// dbg_int.h - the library's single path to the system log, and the debug
// services. Every diagnostic of the library goes through KsplLog/KsplLogV.
#pragma once
#include <cstdarg>

#include "../kspl_internal.h"

// Test hook: when set, every message is also handed, formatted, to the hook
// (whatever the system log mask says). Not exported from kspl.so.
using KsplLogHook = void (*)(int priority, const char* text);
void KsplSetLogHook(KsplLogHook hook);

// Whether a system log daemon listens on /dev/log: KsplProbeSystemLog looks
// now (three system calls), KsplSystemLogListening answers from the last
// look and looks again every few seconds. Messages are not sent while
// nobody listens.
bool KsplProbeSystemLog();
bool KsplSystemLogListening();

void KsoDebugBreakPoint(IKspl* pThis);
void KsoDebugPrintf(IKspl* pThis, PCHAR pFormatStr, ...);
