/// Whether this build would accept an update: asked of the product's own verification code, on copies, so
/// that nothing on this machine changes.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct VerdictQuestion {
  std::string listPath;
  std::string signaturePath;
  std::string crlPath;  ///< "" when the update brings none
  std::string packagePath;
  std::string storedCrl;  ///< the list that the device stores; "" for none
  std::string rootCert;   ///< trusted in place of the built-in root of the CA type; "" for none
  uint16_t caType = 0;
};

struct Verdict {
  bool accepted = false;
  uint32_t code = 0;
  std::string step;               ///< what was being checked
  std::vector<std::string> said;  ///< what the verification logged about it
};

/// Once a process: it sets the process's verification up. False with `error` when the question cannot be
/// asked.
[[nodiscard]] bool AskProduct(const VerdictQuestion& question, Verdict& verdict, std::string& error);
