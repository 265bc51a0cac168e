/// Start-up configuration: the process's XML file, the path configuration, and the files of the HA pairing.
///
/// The lists behind the two path look-ups are built once, by TOLA_Start, before other threads run; look-ups
/// may then be made by any thread.
#pragma once

#include <stdint.h>

#include <string>

inline constexpr uint32_t kPathCfgErrFile = 0x395F;     ///< 14687: the file cannot be opened
inline constexpr uint32_t kPathCfgErrMemory = 0x3960;   ///< 14688: no memory for a list node
inline constexpr uint32_t kPathCfgErrHandle = 0x3961;   ///< 14689: no memory handle
inline constexpr uint32_t kPathCfgErrNull = 0x3962;     ///< 14690: null path
inline constexpr uint32_t kPathCfgErrDefault = 0x3963;  ///< 14691: a default row without a path
inline constexpr uint32_t kPathCfgErrSlash = 0x3964;    ///< 14692: a default path without a slash
inline constexpr uint32_t kPathCfgErrBase = 0x3965;  ///< 14693: a base name that is no file's and no prefix
inline constexpr uint32_t kPathCfgErrLine = 0x3966;  ///< 14694: a line that is no entry
inline constexpr uint32_t kPathCfgErrPath = 0x396C;  ///< 14700: too long, or its real name cannot be resolved

/// Path of the runtime configuration as the process's XML file names it.
/// @retval 0 success @retval 100, 101, 102 see Emos::Parser @retval other tinyxml2's load error
[[nodiscard]] uint32_t GetVeltoCfgFromXml(std::string& out);

/// Component addresses of the process's XML file; on any failure the texts keep what the caller put in them.
void GetCompIpFromXml(std::string& localIp, std::string& destIp);

/// Reads the path configuration file and builds the directory and the file list. A wrong line is reported on
/// standard output and skipped. `reserved` is null.
[[nodiscard]] uint32_t TOLA_Start(const char* pathCfgFile, void* reserved);

/// Configured directory of `key`, else `defaultDir`; null for a null key. The text lives as long as the
/// process.
const char* TOLA_GetPathName(const char* defaultDir, const char* key);

/// Configured full path of the file known as `defaultFullPath`, else that path itself; null for null.
const char* TOLA_GetFileFullName(const char* defaultFullPath);

using CfgFileNameCallback = const char* (*)(const char* defaultFullPath);
using CfgDirCallback = const char* (*)(const char* defaultDir, const char* key);

/// Each callback that is not null replaces its look-up entirely. Set before other threads run.
void SetCfgCallBackFunc(CfgFileNameCallback fileName, CfgDirCallback dir);

/// The record of "ha_init_info.tola", in the machine's byte order.
struct HaInitInfo {
  uint32_t localIp;  ///< in_addr bytes; 0 means no pairing
  uint32_t destIp;
  uint16_t haSwitch;
  uint16_t defaultState;
};
static_assert(sizeof(HaInitInfo) == 12, "the record is 12 bytes on disk");

/// Path of the two-byte file that tells whether the local HA address is used; a product may point it
/// elsewhere.
extern char HA_IP_ENABLE_INFO[256];

/// @retval 0 success @retval 1 the file cannot be opened or not all bytes were transferred
[[nodiscard]] uint32_t GetHaInfo(HaInitInfo* info);
[[nodiscard]] uint32_t GetHAIpEnableInfo(uint16_t* isUsed);
[[nodiscard]] uint32_t StoreHAIpEnableInfo(uint16_t isUsed);
