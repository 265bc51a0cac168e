/// Outside programs and files: command runners with and without a shell, the character checks in front of
/// them, and the file services of the platform.
///
/// Every call blocks until its work is done and may be made by any thread. A running command changes the
/// process-wide handlers of SIGINT and SIGQUIT (the shell way also of SIGCHLD) until it ends, so two commands
/// that overlap may restore each other's saved handlers. No command is ever retried; refused input never
/// forks. A command text that holds a sensitive word is kept out of the run log.
#pragma once

#include <stdint.h>
#include <stdio.h>

inline constexpr uint32_t kCmdErrArgCount = 0x394E;     ///< 14670: more than 126 arguments
inline constexpr uint32_t kCmdErrText = 0x394F;         ///< 14671: null, empty, too long or with a semicolon
inline constexpr uint32_t kCmdErrSpecialChar = 0x396B;  ///< 14699: outside the extended white list
inline constexpr uint32_t kCmdErrNull = 0x396C;         ///< 14700: null text

inline constexpr uint32_t kCmdArgMax = 126;      ///< arguments of one command, the program's name included
inline constexpr uint32_t kCmdBufferSize = 513;  ///< a command of this many characters is refused
inline constexpr uint32_t kCmdSlots = kCmdArgMax + 1;  ///< entries of an argument array: arguments and null

/// File names and paths.
inline constexpr char kDefaultWhiteList[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_./-";
/// Shell commands: the default list plus blank, asterisk, double quote and parentheses.
inline constexpr char kExWhiteList[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_./- *\"()";

/// Folder of the scripts that the sudo runners run.
inline constexpr char kScriptFolder[] = "/app_run/app_bin/script/";

// Command runners. A child inherits descriptors 0 to 2 only.

/// Runs `sh -c command`. What follows `command` is ignored: nothing is ever formatted into a command here.
/// @retval 0 the shell exited with 0
/// @retval 1 anything else; also a null command or one without anything to run, which does not fork
[[nodiscard]] uint32_t TOLA_System(const char* command, ...);

/// TOLA_System as another user: group first, then user. An unknown user is logged and the command runs as the
/// current one; a known user that cannot be switched to does not run it. Never logs the command.
[[nodiscard]] uint32_t TOLA_SystemByUsername(const char* command, const char* userName);

/// TOLA_System after the extended white list.
/// @retval kCmdErrNull, kCmdErrSpecialChar nothing ran @retval other TOLA_System's
[[nodiscard]] uint32_t TOLA_SystemCheckSpecialChar(const char* command);

/// Runs `command` without a shell, split by ParseCmdArg, its program found on the path. `file` and `line` are
/// the caller's and appear in the log lines; `shownText` (may be null) is logged instead of a command that
/// holds a sensitive word.
/// @retval 0 exit code 0 @retval 1 not started, killed, stopped (and then ended), or a command that is null
/// or only blanks
/// @retval kCmdErrText, kCmdErrArgCount refused @retval other the exit code (127: the program was not found)
[[nodiscard]] uint32_t tola_excev(const char* file, uint32_t line, const char* command,
                                  const char* shownText);

/// tola_excev without a single run-log line, for the run log itself.
[[nodiscard]] uint32_t tola_excev_no_log(const char* file, uint32_t line, const char* command,
                                         const char* shownText);

/// Runs a script of kScriptFolder by its bare name, through sudo unless the process is root's.
/// @retval 1 the name is null, empty, too long or not bare, nothing ran @retval other TOLA_System's
[[nodiscard]] uint32_t TOLA_SystemSudoWithoutParam(const char* scriptName);
/// The same with `parameter` behind the name, for this process's shell: a redirection in it is done with this
/// process's rights. The caller answers for its characters.
/// @retval 1 also for a null or too long parameter
[[nodiscard]] uint32_t TOLA_SystemSudoWithParam(const char* scriptName, const char* parameter);

// Character checks. None logs but CheckCmdSpecialChar.

/// Splits `command` at blanks into `arguments` (kCmdSlots entries, closed by a null), which point into
/// `buffer`. A double quote is dropped, ends the argument that runs and toggles quoting; inside quotes a
/// blank is a character like any other. The first newline ends the command. A text of blanks gives 0 and no
/// argument.
/// @retval kCmdErrText the command is null, empty, holds ';' or has `bufferSize` characters or more
/// @retval kCmdErrArgCount more than kCmdArgMax arguments
[[nodiscard]] uint32_t ParseCmdArg(const char* command, char* buffer, uint32_t bufferSize, char** arguments);

/// @retval 0 every character of `text` is in `list` (null: kDefaultWhiteList, which also refuses what
/// IsContainSpecialMuiltChar finds); so is an empty text @retval 1 otherwise, also for null
[[nodiscard]] uint32_t CheckSpecialCharWithWhiteList(const char* text, const char* list);
[[nodiscard]] uint32_t TOLA_CheckSpecialChar(const char* text, const char* list);  ///< its public name

/// @retval 0 within kExWhiteList @retval kCmdErrNull @retval kCmdErrSpecialChar
[[nodiscard]] uint32_t CheckSpecialCharWithExWhiteList(const char* text);

/// @retval 1 `command` holds ';' (logged at level 5, whatever it holds) or is null @retval 0 otherwise
[[nodiscard]] uint32_t CheckCmdSpecialChar(const char* command);

/// True for null, for "../" or "./" anywhere, and for ".." alone. Kept: "a./b" is found as well.
[[nodiscard]] bool IsContainSpecialMuiltChar(const char* name);

/// Whether `text` holds a word that keeps a command out of the run log.
[[nodiscard]] bool HoldsSensitiveWord(const char* text);

// File services. Results are 0 for success and 1 for failure, with null arguments a failure.

/// @retval 0 something exists at `path` (links followed) @retval 1 nothing does
[[nodiscard]] uint32_t CheckFileExist(const char* path);

/// Bytes of a regular file; 4 GiB or more is a failure. `length` is 0 on failure.
[[nodiscard]] uint32_t GetFileLen(const char* path, uint32_t& length);

/// fopen with close-on-exec; `mode` is "r", "w" or "a", with "+" and "b" as wished. A file that it creates
/// has mode 0600 and, where the account exists and we may, the owner prorunacc:quorin; never through a
/// dangling link. Returns null on failure with errno set; the stream is the caller's, for TOLA_CloseFile.
[[nodiscard]] FILE* TOLA_OpenFile(const char* path, const char* mode);
/// @retval 1 the last bytes could not be written; the stream is gone all the same
[[nodiscard]] uint32_t TOLA_CloseFile(FILE* file);
[[nodiscard]] uint32_t TOLA_SeekFile(FILE* file, int64_t offset, int whence);
/// @retval 1 not all `length` bytes were taken; they may still be in the stream's buffer on 0
[[nodiscard]] uint32_t TOLA_WriteFile(FILE* file, const void* data, size_t length);

/// Copies a regular file: destination holds all of it or what it held before, also after a power cut. A link
/// at `destination` is replaced, not followed. The copy has mode 0600 and the platform's owner, as
/// TOLA_OpenFile. A failure is logged for `moduleId`.
[[nodiscard]] uint32_t TOLA_CopyFile(uint16_t moduleId, const char* source, const char* destination);
/// TOLA_CopyFile that never logs, for the run log.
[[nodiscard]] uint32_t TolaBackupFile(const char* source, const char* destination);

/// @retval 0 nothing is at `path` any more, also when nothing was @retval 1 failure, logged for `moduleId`
[[nodiscard]] uint32_t TOLA_DeleteFile(uint16_t moduleId, const char* path);

/// Gives a regular file mode 0600 and the owner prorunacc:quorin. Follows no link and never logs.
/// @retval 1 not a regular file, or one with a second name, which may be somebody else's; the mode could not
/// be set, or root could not set an existing owner; another user than root leaves the owner as it is and
/// succeeds
[[nodiscard]] uint32_t ChangeFileProperty(const char* path);

/// Gives `path` (links followed) the owner prorunacc:quorin and leaves its mode. Never logs.
/// @retval 1 there is no such account, or the owner could not be set
[[nodiscard]] uint32_t GiveToPlatform(const char* path);

/// Writes dirty pages out and asks the kernel to drop its caches; without the right to, only the former.
void DropCaches();

/// Milliseconds of the monotonic clock; wraps after 49.7 days, so only differences mean something.
[[nodiscard]] uint32_t GetMsTime();
