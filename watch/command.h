// Running one command text.
//
// The head of a text picks the kind of command: a program to start, a thread of its own, a library
// to call, logon values to write, a document to open. All operations may be called from any thread.
// Secrets in command texts do not reach the trace. Nothing is thrown.
#pragma once

#include <cstdint>

#include "pkcs11/cryptoki.h"

namespace qixx::watch {

/// Runs the command that the head of `text` names (letter case ignored), anything else as a program
/// with its arguments. Returns its success; a started program or thread is one. `show` and `wait`
/// are the event's, `terminate` asks for programs to be remembered for the removal. An insert into
/// slot 0 is a simulated one: it never reaches for a card.
bool ExecuteCommand(CK_SLOT_ID slot, bool insert, const char* text, std::uint64_t wait, bool show,
                    bool terminate);

/// Starts `program` (null or empty: the arguments are the whole command line) without waiting;
/// `wait` is deliberately not used. A program of 256 characters and more is refused. `processId`
/// receives 0 on this platform, so that nothing enters the terminate list.
bool StartCommandProcess(const char* program, const char* arguments, std::uint64_t wait, bool show,
                         std::uint64_t& processId);

/// Waits up to `milliseconds` for running "parallel " jobs; false when some still run.
bool WaitForParallelJobs(unsigned milliseconds);

}  // namespace qixx::watch
