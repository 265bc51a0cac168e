/// Which file names update_pack makes and takes.
#pragma once

#include <string>

/// Letters, digits, '.', '_' and '-' only, beginning with a letter or a digit: such a name passes every check
/// of the product, is no option of a program, and is no hidden file.
[[nodiscard]] bool IsPlainFileName(const std::string& name);

/// The names of what stands beside a package: from a list called "x.txt" the signature "x.cms" and the
/// revocation list "x.crl".
struct SignatureNames {
  std::string list;
  std::string signature;
  std::string crl;
};
[[nodiscard]] SignatureNames NamesOf(const std::string& list);
