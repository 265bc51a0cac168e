#include "file_names.h"

#include <ctype.h>

#include "update/file_name_check.h"

bool IsPlainFileName(const std::string& name) {
  if (name.empty() || isalnum(static_cast<unsigned char>(name[0])) == 0) return false;
  return GetAndCheckFileName(name.c_str()) != nullptr && name.find('/') == std::string::npos;
}

SignatureNames NamesOf(const std::string& list) {
  const std::string stem = list.substr(0, list.rfind('.'));
  return {list, stem + ".cms", stem + ".crl"};
}
