/// The root certificate table: which certificates an update's signature may end at.
///
/// The table is empty until verification is enabled and is written only then, by one thread, before requests
/// are served; afterwards any thread may read it. It points at the certificates and never copies them.
#pragma once

#include <stdint.h>

inline constexpr uint16_t kRootCaCount = 3;
inline constexpr uint32_t kRootCaErrType = 50946;  ///< 0xC702: CA type of 3 or more

/// One root. The bytes are PEM text (without a terminator) or DER, and must live as long as the table.
struct TOLA_ROOT_CA_S {
  uint16_t caType;
  const uint8_t* certificate;
  uint16_t length;   ///< bytes; 0 means no certificate
  uint8_t isEnable;  ///< 0: the entry is passed over
};
#if UINTPTR_MAX == UINT32_MAX
static_assert(sizeof(TOLA_ROOT_CA_S) == 12);
#endif

/// Indexed by CA type.
extern TOLA_ROOT_CA_S g_rootCAList[kRootCaCount];

/// Stores `entry` at its CA type's place and runs the secure-boot hook, see SetMultiSignatureInstallHook.
/// @retval 0 @retval kRootCaErrType
[[nodiscard]] uint32_t TOLA_SignatureVerificationAddRootCA(const TOLA_ROOT_CA_S& entry);

/// @retval 0 @retval kRootCaErrType
[[nodiscard]] uint32_t TOLA_SignatureVerificationSetRootCAEnable(uint16_t caType, uint8_t enable);

/// A copy of the entry; an empty one for a CA type of 3 or more.
[[nodiscard]] TOLA_ROOT_CA_S GetRootCa(uint32_t caType);

/// Number of CA types.
[[nodiscard]] uint32_t GetSignatureRootCASupportNum();

/// The built-in roots as enabled entries of CA type 0 (PEM, 1934 bytes), 1 (DER, 1145) and 2 (DER, 1606).
[[nodiscard]] TOLA_ROOT_CA_S TOLA_SignatureVerifGetRootCARSA2048();
[[nodiscard]] TOLA_ROOT_CA_S TOLA_SignatureVerifGetRootCARSA3072();
[[nodiscard]] TOLA_ROOT_CA_S TOLA_SignatureVerifGetRootCARSA4096();

/// True when this program was built without the product's roots and trusts those of its own build folder.
[[nodiscard]] bool UsesDevelopmentRoots();

/// `install` puts the multiple-signature rebuild function of the secure-boot check in its place; it runs at
/// every TOLA_SignatureVerificationAddRootCA. Null for none.
void SetMultiSignatureInstallHook(void (*install)());
