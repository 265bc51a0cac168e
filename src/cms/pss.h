/// Parameters of RSA-PSS signatures.
#pragma once

#include <optional>

#include "cms/openssl_owners.h"

namespace cms {

struct PssParams {
  int digestNid;   ///< of the message and of the mask
  int saltLength;  ///< bytes
};

/// Reads the parameters of `algorithm`; none unless they are well formed, one digest serves message and mask,
/// and the trailer is the standard one.
[[nodiscard]] std::optional<PssParams> ReadPssParams(const X509_ALGOR* algorithm);

}  // namespace cms
