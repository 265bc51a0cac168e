/// Addresses of this process and its peers: what the product sets, and what the high-availability files
/// change.
///
/// All run once, on the initialisation task, before the component frame is initialised with the block.
#pragma once

#include <stdint.h>

#include "comp/comp_manager.h"

/// Fills the product's set: this process's address, and the requesting component's process as the one
/// destination.
/// @retval 1 an address text does not fit its field
[[nodiscard]] uint32_t TOLA_OsRegProductCompInitInfo(TOLA_COMP_REG_BLOCK_S* block);

/// Writes the marker for a process whose id is made from its address (100). @retval 0 always
[[nodiscard]] uint32_t TOLA_OsRegDynCompProcInfo(uint32_t* processId);

/// With a pairing on file: puts its local address into the local process and every destination, and switches
/// component HA on with the pairing's default state. Without one, or where the address is not to be used,
/// nothing.
void FlushLocalProcStaticInfo(TOLA_COMP_REG_BLOCK_S* block);

/// With a pairing that is used: replaces the marker in destination process ids by the id made from the local
/// address.
void TolaOsUpdateDstProcInfo(TOLA_COMP_REG_BLOCK_S* block);
