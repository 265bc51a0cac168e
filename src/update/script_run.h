/// Runs one update script under a CPU limit and judges it by what it prints.
///
/// A script succeeds by printing a line that begins with "OK" in any case; its exit code says nothing. It
/// runs as a child of the calling task, which is blocked until it ends. All delays and time-outs are measured
/// with the runtime's clock.
#pragma once

#include <stdint.h>
#include <stdio.h>

/// The text after the last slash; the whole path when there is none.
const char* ScriptBaseName(const char* path);

/// Whether the base name begins with "monitor_update.sh". Such a script gets the package itself, wherever it
/// came from, and is not listened to: the recorded boot bank is switched while it runs.
bool IsBankScript(const char* path);

/// Runs "scriptPath fileArgument extendPara"; `extendPara` null leaves the third word out. The script's mode
/// becomes 0700. Once the result is known (its OK line, or a bank script's switch) its output is closed, so
/// that one that prints on meets SIGPIPE; then its end is awaited.
///
/// @retval 0                 the script reported success
/// @retval 1                 arguments missing or too long, script missing or empty, a command that a shell
///                           would read as more than words, no pipe, or no OK line before the output ended or
///                           fell silent for 600 seconds
/// @retval kErrFormat        the command line is longer than 512 characters
/// @retval kExeErrBackOpen, kExeErrBackRename  see ModifyBackPath
[[nodiscard]] uint32_t ExeScriptFileCommon(const char* scriptPath, const char* fileArgument,
                                           const char* extendPara, uint16_t cpuLimit);

/// Limits the running script of this base name to `cpuLimit` percent; 0 does nothing. Looks for its process
/// for two seconds; one without a "#!" line runs under the shell's name and is never found. A failure is only
/// logged: the script runs on unlimited. So does one whose process id exceeds the driver's 16 bits.
void LimitScriptRes(const char* scriptName, uint16_t cpuLimit);
void ResCtrlByPid(const char* scriptName, int32_t pid, uint16_t cpuLimit);

/// Reads lines from the read end `stream` of a pipe, of which nothing has been read yet, until one begins
/// with OK. Does not close it.
/// @retval 0 an OK line came @retval 1 the output ended, failed, or was silent for `timeoutSeconds`
[[nodiscard]] uint32_t WaitScriptFinish(FILE* stream, uint32_t timeoutSeconds);

/// Exchanges "/app_bin0" and "/app_bin1" in every line of `configPath`, by way of the copy `backupPath`. The
/// configuration is either rewritten whole or untouched.
/// @retval kExeErrBackOpen a file cannot be opened @retval 1 short write @retval kExeErrBackRename the copy
/// could not take the configuration's place
[[nodiscard]] uint32_t ModifyBackPath(const char* configPath, const char* backupPath);
