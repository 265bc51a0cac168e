/// The frame of a feature process: from the command line to the one-second loop of the main thread.
///
/// The steps run on the starting thread, in the order of their declaration; the initialisation task then runs
/// beside the main thread's loop. Each step's result is passed on as the process's exit status.
#pragma once

#include <stdint.h>

#include <atomic>

/// Set once, by the initialisation task, when a stage fails; ends the loop of the main thread.
extern std::atomic<uint8_t> g_isfeatureProcessExit;

/// Runs the process. Returns when a step before the loop failed (its result), when another process of its
/// name runs (kDmsErrNameTaken), or when the exit flag was set (0: a failed stage shows in the "init fail"
/// line and the run log, not in the exit status).
[[nodiscard]] uint32_t TolaOsFeatureProcessMain(const char* exePath, const char* initTaskName);

/// Detaches from the terminal: the caller goes on in a grandchild in "/tmp" that holds descriptors 0 to 2
/// alone, each of them open, and that survives a broken pipe. It neither blocks nor ignores a signal that the
/// starter did, and what it makes is nobody else's to write.
void TolaOsMakeMeDaemon();

/// Starts the runtime with the configuration that the process's XML file names, else with the default one.
[[nodiscard]] uint32_t TolaOsInitVelto();

/// Puts TOLA_ROOT_DIR (the executable's directory) and TOLA_LOG_DIR into the environment.
/// @retval 1 the path holds no directory @retval kErrTextCopy, kErrTextFormat it does not fit
[[nodiscard]] uint32_t TolaOsSetEnv(const char* exePath);

/// Forms "TOLA_ROOT_DIR=" and `exePath` without its last strlen(appName) characters; only the lengths are
/// compared. @retval 1, kErrTextCopy, kErrTextFormat as above
[[nodiscard]] uint32_t TolaOsGetAppEnv(const char* exePath, const char* appName, char* dst, unsigned dstSize);

/// Starts the task that runs the stage table.
[[nodiscard]] uint32_t TolaOsCreatfeatureProcessInitTask(const char* taskName);
void TolaOsfeatureProcessInitTask(uintptr_t, uintptr_t, uintptr_t, uintptr_t);
