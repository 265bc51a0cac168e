/// Takes a script out of its update package, a tar.gz archive, with the system's tar.
///
/// The package is unpacked beside itself. tar takes the leading "/" off member names, refuses those with ".."
/// in them and does not write through links that the same archive brought, so nothing lands outside the
/// package's directory.
#pragma once

#include <stddef.h>
#include <stdint.h>

/// Unpacks `packagePath` when it lists the base name of `scriptPath`; `innerFile` becomes the path of the
/// last other entry, with the line end of the listing (kept: the command line is cut there).
/// @retval 0 the script file exists now @retval other result of CheckFileExist
[[nodiscard]] uint32_t GetInnerScript(const char* scriptPath, const char* packagePath, char* innerFile,
                                      uint32_t innerFileSize);

/// The same for a script name. A path that does not fit `size` is cut.
/// @retval 0 listed, or no pipe @retval kErrFormat command too long @retval other refusal of the name check,
/// or tar's wait status
uint32_t GetInnerShFile(const char* directory, const char* packagePath, const char* scriptName,
                        char* innerFile, uint32_t size);

/// Unpacks the package into `directory`. `commandBuffer` holds the listed line that asked for it, and the tar
/// command afterwards. Success shows only in the files.
void DecompressUpdatePackage(char* commandBuffer, uint32_t size, const char* packagePath,
                             const char* directory);
