/// The components of both sides of an update on the real runtime.
#pragma once

#include <memory>
#include <vector>

#include "support/components.h"
#include "update/script_exe_ids.h"
#include "update/script_exe_messages.h"

namespace update_test {

constexpr uint32_t kRequester = 4150;

/// Starts the runtime and these components, once a process; later calls change nothing.
inline void StartComponents(const std::vector<TOLA_COMP_TYPE_S>& types) {
  static bool started = false;
  if (std::exchange(started, true)) return;
  support::StartRuntime();
  const auto block = std::make_unique<TOLA_COMP_REG_BLOCK_S>();
  block->product.local = {"127.0.0.1", 104};
  block->platform.typeNum = static_cast<uint32_t>(types.size());
  std::copy(types.begin(), types.end(), block->platform.type);
  ASSERT_EQ(TolaOsCompFrameInit(block.get()), 0u);
  for (const TOLA_COMP_TYPE_S& type : types) ASSERT_EQ(TolaOsKickOffComps(&type), 0u) << type.typeId;
}

/// Reads a record of the exchange out of what a component was given.
template <class Record>
void Parse(const support::CompMsg& got, Record& record) {
  EXPECT_EQ(record.ParseFromMsg(reinterpret_cast<const unsigned char*>(got.data.data()),
                                static_cast<uint32_t>(got.data.size())),
            0u);
}

inline void Put(TolaCmpMsg::MsgText& field, const std::string& text) {
  ASSERT_EQ(field.Set(text.data(), static_cast<uint32_t>(text.size()), 255), 0u);
}

}  // namespace update_test
