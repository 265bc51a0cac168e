/// The path configuration "tola.cfg" moves whole classes of files to other directories: one
/// `prefix.key='directory/'` a line. Whatever is wrong with a line is printed and costs that line alone.

#include "frame/path_cfg.h"

#include <dirent.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include "base/owners.h"
#include "base/result_codes.h"
#include "frame/default_file_list.h"
#include "frame/public_file_cfg.h"
#include "log/file_public.h"
#include "securec.h"
#include "velto/kel_mem.h"

namespace {

constexpr size_t kLineSize = 511;
constexpr size_t kPathSize = 513;
constexpr char kValueMark[] = "='";
constexpr char kVersionMark[] = "tola_config.version";

// Fixed marks of the printed lines; tools search for them.
constexpr int kMarkStart = 599;
constexpr int kMarkCreate = 538;
constexpr int kMarkInsertDir = 469;
constexpr int kMarkInsertFile = 421;
constexpr int kMarkDirFound = 112;
constexpr int kMarkFileFound = 85;

uint32_t g_handle = 0;
PathNode* g_dirList = nullptr;
PathNode* g_fileList = nullptr;
CfgFileNameCallback g_fileNameCallback = nullptr;
CfgDirCallback g_dirCallback = nullptr;

/// Puts a copy of `node` at the head of a list.
uint32_t InsertFileNodeToList(PathNode*& head, const PathNode& node) {
  auto* place = static_cast<PathNode*>(KEL_MEM_ALLOC(g_handle, sizeof(PathNode)));
  if (place == nullptr) return kPathCfgErrMemory;
  *place = node;
  place->next = head;
  head = place;
  return kSuccess;
}

/// One row of the default table under its configured directory.
uint32_t InsertOneFilePathToList(PathNode& work, const char* value, const char* defaultPath) {
  if (defaultPath == nullptr) return kPathCfgErrDefault;
  const char* slash = strrchr(defaultPath, '/');
  if (slash == nullptr) return kPathCfgErrSlash;
  const char* base = slash + 1;
  const size_t length = strlen(base);
  const bool isPrefix = length > 0 && base[length - 1] == '_';
  if (strchr(base, '.') == nullptr && !isPrefix) return kPathCfgErrBase;
  // kept: no slash is put in between, a value without a trailing one gives joined names
  if (snprintf_s(work.path, sizeof(work.path), sizeof(work.path) - 1, "%s%s", value, base) < 0)
    return kErrTextFormat;
  work.defaultPath = defaultPath;
  return InsertFileNodeToList(g_fileList, work);
}

}  // namespace

const PathNode* GetPathList() {
  return g_dirList;
}
const PathNode* GetPathCfgList() {
  return g_fileList;
}

bool CheckLineValidPath(const char* line) {
  return line[0] != '#' && line[0] != '\t' && line[0] != '\n' && strstr(line, kVersionMark) == nullptr;
}

void CreateDirWhenNotExist(char* dir) {
  if (CheckSpecialCharWithWhiteList(dir, nullptr) != 0) {
    (void)printf("Check path error: %d\n", 1);
    return;
  }
  if (base::DirPtr existing(opendir(dir)); existing != nullptr) return;
  char command[257] = {};
  const int written = snprintf_s(command, sizeof(command), sizeof(command) - 1, "mkdir -p %s", dir);
  if (written < 0) {
    (void)printf("Create new path error: %d, %s\n", written, dir);
    return;
  }
  if (tola_excev(__FILE__, __LINE__, command, "make dir") != 0) (void)printf("make dir fail %s\n", dir);
}

uint32_t InsertRunPathToList(const char* key, const char* value) {
  PathNode node = {};
  if (strcpy_s(node.key, sizeof(node.key), key) != EOK) return kErrCopy;
  if (snprintf_s(node.path, sizeof(node.path), sizeof(node.path) - 1, "%s", value) <= 0)
    return kErrTextFormat;
  return InsertFileNodeToList(g_dirList, node);
}

void TravelInsertFilePathToList(const char* key, const char* value) {
  PathNode work = {};
  if (strcpy_s(work.key, sizeof(work.key), key) != EOK) return;  // the caller has measured the key
  int index = 0;
  for (const DefaultFileRow& row : g_defaultFileList) {
    if (strcmp(row.key, key) == 0) {
      work.path[0] = '\0';
      work.defaultPath = nullptr;
      const uint32_t result = InsertOneFilePathToList(work, value, row.path);
      if (result != 0) {
        (void)printf("[%d]:insert filepath %s, %s, %s, No.[%d] err %#x\n", kMarkInsertFile,
                     row.path == nullptr ? "" : row.path, key, value, index, result);
      }
    }
    ++index;
  }
}

void GetDefaultPathAndCreateList(const char* key, const char* value) {
  const uint32_t result = InsertRunPathToList(key, value);
  if (result != 0) (void)printf("[%d]:insert tolacfg %s, %s err %#x\n", kMarkInsertDir, key, value, result);
  TravelInsertFilePathToList(key, value);
}

uint32_t CreateKeyAndVal(char* line, uint16_t size) {
  if (strnlen(line, size) == size) return kPathCfgErrLine;
  char* dot = strchr(line, '.');
  if (dot == nullptr) return kPathCfgErrLine;
  char* mark = strstr(dot + 1, kValueMark);
  if (mark == nullptr) return kPathCfgErrLine;

  const std::ptrdiff_t keyLength = mark - (dot + 1);
  if (keyLength == 0) return kFailure;
  char key[sizeof(PathNode::key)] = {};
  if (strncpy_s(key, sizeof(key), dot + 1, static_cast<size_t>(keyLength)) != EOK) return kErrCopy;

  char* value = mark + strlen(kValueMark);
  value[strcspn(value, "'\r\n")] = '\0';
  CreateDirWhenNotExist(value);
  GetDefaultPathAndCreateList(key, value);
  return kSuccess;
}

void ParsePathCfgFile(FILE* file) {
  char line[kLineSize] = {};
  while (fgets(line, sizeof(line), file) != nullptr) {
    if (!CheckLineValidPath(line)) continue;
    if (CreateKeyAndVal(line, sizeof(line)) != 0) (void)printf("[%d]:create err: %s\n", kMarkCreate, line);
  }
}

uint32_t TOLA_Start(const char* pathCfgFile, void* /*reserved*/) {
  if (pathCfgFile == nullptr) return kPathCfgErrNull;
  if (KEL_HandleInitialize("file_cfg", &g_handle) != 0) return kPathCfgErrHandle;
  if (strlen(pathCfgFile) > kPathSize - 1) return kPathCfgErrPath;
  const base::MallocPtr realName(realpath(pathCfgFile, nullptr));
  if (realName == nullptr || strlen(realName.get()) > kPathSize - 1) return kPathCfgErrPath;
  const base::FilePtr file(fopen(realName.get(), "re"));
  if (file == nullptr) return kPathCfgErrFile;
  (void)printf("[%d]:parse cfg start: %s\n", kMarkStart, pathCfgFile);
  ParsePathCfgFile(file.get());
  return kSuccess;
}

const char* TOLA_GetPathName(const char* defaultDir, const char* key) {
  if (key == nullptr) return nullptr;
  if (g_dirCallback != nullptr) return g_dirCallback(defaultDir, key);
  for (const PathNode* node = g_dirList; node != nullptr; node = node->next) {
    if (strcmp(node->key, key) == 0) {
      (void)printf("[%d]:type:%s old:%s -> new:%s \n", kMarkDirFound, key,
                   defaultDir == nullptr ? "" : defaultDir, node->path);
      return node->path;
    }
  }
  return defaultDir;
}

const char* TOLA_GetFileFullName(const char* defaultFullPath) {
  if (defaultFullPath == nullptr) return nullptr;
  if (g_fileNameCallback != nullptr) return g_fileNameCallback(defaultFullPath);
  for (const PathNode* node = g_fileList; node != nullptr; node = node->next) {
    if (strcmp(node->defaultPath, defaultFullPath) == 0) {
      (void)printf("[%d]:[path]old:%s, new:%s \n", kMarkFileFound, defaultFullPath, node->path);
      return node->path;
    }
  }
  return defaultFullPath;
}

void SetCfgCallBackFunc(CfgFileNameCallback fileName, CfgDirCallback dir) {
  g_fileNameCallback = fileName;
  g_dirCallback = dir;
}
