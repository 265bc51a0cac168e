/// The script executor: the component that takes an update request, has it verified or authorised, unpacks
/// the package, runs its script and answers with the result.
///
/// The three entries are given to the component manager. They run in the component's own task, one message
/// at a time, so the state behind them has no lock; it lives as long as the process and is never saved.
#pragma once

#include <stdint.h>

#include "update/script_exe_ids.h"

inline constexpr char kScriptExeCompName[] = "SCRIPT_EXECUTOR_COMP";
inline constexpr char kScriptExeCompVersion[] = "1.0.0";

extern "C" {

/// @retval 0 always, for every creation stage
uint32_t TOLA_ScriptExeCompConstructor(uint32_t stage);
uint32_t TOLA_ScriptExeCompDestructor(void);

/// Takes messages 41840 and 41843, ignores null and every other id. The message stays the runtime's. Blocks
/// for as long as the script runs.
void TOLA_ScriptExeCompMsgProc(void* message);

}  // extern "C"
