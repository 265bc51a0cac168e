/// The component manager over the real runtime: start-up from the registration block, addresses, HA.
#include "comp/comp_manager.h"

#include <memory>

#include "comp_fixture.h"
#include "velto/dms.h"

namespace comp_test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<uint32_t> g_noted;
uint32_t Note(uint32_t csi) {
  g_noted.push_back(csi);
  return 0x10000;  // only the low 16 bits count
}

std::unique_ptr<TOLA_COMP_REG_BLOCK_S> NewBlock() {
  auto block = std::make_unique<TOLA_COMP_REG_BLOCK_S>();
  block->product.local = Address(kProcId);
  return block;
}

bool IsKnown(uint32_t csi) {
  return CompManagerImpl::GetInstance().IsComponent(csi);
}

class CompManagerTest : public CompTest {
 protected:
  CompManagerTest() { g_noted.clear(); }
};

TEST_F(CompManagerTest, AStageStartsItsTypesPlatformFirstWithAtMostFourInstances) {
  auto block = NewBlock();
  types_ = {CompType(1011, nullptr), CompType(1001, support::Keep, "MANY"), CompType(1010, support::Keep),
            CompType(1012, support::Keep)};
  types_[1].instNum = 6;
  for (uint32_t i = 0; i < kCompInstMax; ++i) types_[1].inst[i] = {1001 + i, Note};
  types_[2].stage = 1;
  types_[2].typeId = 0;
  types_[2].inst[0].paraReg = types_[3].inst[0].paraReg = Note;
  block->platform.typeNum = block->product.typeNum = 2;
  std::copy_n(&types_[0], 2, block->platform.type);
  std::copy_n(&types_[2], 2, block->product.type);
  ASSERT_EQ(TolaOsCompFrameInit(block.get()), 0u);
  TolaOsRegAllComp(block.get(), 0);
  EXPECT_THAT(log_.Lines(), Contains("Name:MANY Type=0x3e9, csi=0x3ec, Success, ret=0"));
  EXPECT_THAT(log_.Lines(), Contains("Comps kick result 0x1")) << "a failed type stops no other";
  TolaOsRegAllComp(block.get(), 1);
  EXPECT_THAT(g_noted, ElementsAre(1001, 1002, 1003, 1004, 1012, 1010));
  EXPECT_EQ(TolaCompKickOff(1013), kRtfErrNoType) << "one that nobody made known became of type 0";
  for (const uint32_t csi : {1004, 1010}) {
    ASSERT_EQ(TolaCompMsgSend(csi, NewCompMsg(1001, 5, 6, "x")), 0u);
    EXPECT_EQ(Arrived().Take().destination, csi) << "started but not delivered to";
  }
}

uint32_t Refuse() {
  return 0x30007;
}

TEST_F(CompManagerTest, TheFirstFailureEndsATypesStart) {
  using Type = TOLA_COMP_TYPE_S;
  const struct {
    const char* name;
    void (*spoil)(Type&);
    uint32_t result;
    const char* line;
    bool firstRuns;
  } cases[] = {
      {"before", [](Type& t) { t.beforeReg = Refuse; }, 7,
       "Comp type start up failed type=0x44d, name=before, ret=0x7", false},
      {"name", [](Type& t) { memset(t.name, 'n', sizeof(t.name)); }, 1,
       "Comp type reg comp failed type=0x44e, name=nnnnnnnnnnnnnnnnnnnnnnnn, ret=0x1", false},
      {"version", [](Type& t) { memset(t.version, 'v', sizeof(t.version)); }, 1, "strcpy_s ver fail", false},
      {"entry", [](Type& t) { t.msgProc = nullptr; }, 1, "reg fail(0x601)! typeId[1104]", false},
      {"parameter", [](Type& t) { t.inst[1].paraReg = [](uint32_t) { return 0x10009u; }; }, 9,
       "Comp instance set Para failed type=0x451, name=parameter, csi = 0x9951, ret=0x9", true},
      {"constructor", [](Type& t) { t.constructor = [](uint32_t stage) { return stage == 2 ? 1u : 0u; }; }, 1,
       "stage[2],csi[1106],type[1106],fail(0x607)", false},
      {"after", [](Type& t) { t.afterStart = Refuse; }, 7,
       "Comp type start up failed type=0x453, name=after, ret=0x7", true},
  };
  uint32_t id = 1101;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Type type = CompType(id, support::Keep, c.name);
    type.instNum = 2;
    type.inst[1].csi = id + 0x9500;
    c.spoil(type);
    EXPECT_EQ(Start(type), c.result);
    EXPECT_THAT(log_.Lines(), Contains(HasSubstr(c.line)));
    EXPECT_EQ(TolaCompMsgSend(id++, NewCompMsg(1, 1, 1, "")) == 0, c.firstRuns) << "what ran before stays";
    if (c.firstRuns) (void)Arrived().Take();
  }
}

TEST_F(CompManagerTest, ADestroyedInstanceIsForgotten) {
  TOLA_COMP_TYPE_S type = CompType(1301, support::Keep);
  type.destructor = [] { return Note(0) & 1; };
  ASSERT_EQ(Start(type), 0u);
  int mine = 0;
  ASSERT_EQ(TolaCompSetPara(1301, &mine), 0u);
  EXPECT_EQ(TolaCompGetPara(1301), &mine);
  EXPECT_NE(CompManagerImpl::GetInstance().DeleteCompType(1301), 0u) << "the type still has an instance";
  ASSERT_EQ(CompManagerImpl::GetInstance().CompDestroy(1301), 0u);
  EXPECT_THAT(g_noted, ElementsAre(0)) << "its destructor";
  EXPECT_FALSE(IsKnown(1301));
  EXPECT_EQ(TolaCompGetPara(1301), nullptr) << "a later instance would find another one's data";
}

TEST_F(CompManagerTest, InitRefusesWhatIsNoProcess) {
  TOLA_COMP_DST_PROC_S local = Process(0, {1401});
  EXPECT_EQ(TolaCompInit(&local, 0, nullptr), 1u);
  EXPECT_EQ(TolaCompInit(&local, 2, nullptr), 1u);
  local.procId = kProcId;
  memset(local.ip, '1', sizeof(local.ip));
  EXPECT_EQ(TolaCompInit(&local, 0, nullptr), 1u) << "an address without end was read";
  const TOLA_COMP_DST_PROC_S bad = Process(500, {1403}, "no address");
  local = Process(kProcId, {});
  EXPECT_EQ(TolaCompInit(&local, 1, &bad), kDmsErrPara);
  EXPECT_THAT(log_.Lines(), testing::IsSupersetOf({"invalid procId(0)", "dstNum[2] but dstProc is null",
                                                   "proc ip without end"}));
}

TEST_F(CompManagerTest, TheFirst32DestinationsOfBothSetsCount) {
  auto block = NewBlock();
  block->product.dstNum = block->platform.dstNum = 20;
  for (uint32_t i = 0; i < 20; ++i) {
    block->product.dst[i] = Process(200 + i, {2000 + i});
    block->platform.dst[i] = Process(220 + i, {2020 + i});
  }
  ASSERT_EQ(TolaOsCompFrameInit(block.get()), 0u);
  for (uint32_t i = 0; i < 40; ++i) {
    EXPECT_EQ(IsKnown(2000 + i), i < 32) << i;
    const TOLA_COMP_PROC_S process = Address(200 + i);
    EXPECT_EQ(TolaDelCompDstProcInfo(&process) == 0, i < 32) << i;
    EXPECT_FALSE(IsKnown(2000 + i)) << "removal left an address behind";
  }
}

TEST_F(CompManagerTest, AnAddedProcessMakesItsComponentsKnownAndTakesNoLocalOne) {
  TolaCompRegIdAddNotify([](uint32_t csi) { (void)Note(csi); });
  ASSERT_EQ(Start(1501), 0u);
  const TOLA_COMP_DST_PROC_S peer = Process(400, {1501, 1502});
  const int secInfo = 1;
  EXPECT_EQ(TolaAddCompDstProcInfoWithSecInfo(&peer, &secInfo), 1u);
  EXPECT_FALSE(IsKnown(1502)) << "a process that needs a secured link is reached in the clear";
  ASSERT_EQ(TolaAddCompDstProcInfoWithSecInfo(&peer, nullptr), 0u);
  TolaCompRegIdAddNotify(nullptr);
  EXPECT_THAT(g_noted, ElementsAre(1501)) << "each local component is announced, and no other";
  EXPECT_EQ(TolaCompMsgSend(1502, NewCompMsg(1501, 1, 1, "x")), kDmsErrNoPeer) << "nobody listens there";
  EXPECT_THAT(log_.Lines(), Contains("0x5dd send msg 0x1 to 0x5de fail:0x503"));
  ASSERT_EQ(TolaCompMsgSend(1501, NewCompMsg(1501, 1, 1, "here")), 0u);
  EXPECT_EQ(Arrived().Take().data, "here") << "another process took a local instance away";

  const TOLA_COMP_PROC_S peerAddress = Address(400);
  TOLA_COMP_PROC_S own{};
  EXPECT_EQ(CompManagerImpl::GetInstance().CompImport(1503, 1), 0u);
  EXPECT_EQ(TolaDelCompDstProcInfo(&own), kDmsErrPara);
  EXPECT_EQ(CompManagerImpl::GetInstance().RmvCompInfo(1503), 0u) << "a refused removal forgot an instance";
  ASSERT_EQ(TolaCompGetLocalProcInfo(&own), 0u);
  EXPECT_EQ(TolaDelCompDstProcInfo(&peerAddress), 0u);
  EXPECT_NE(TolaDelCompDstProcInfo(&own), 0u);
}

/// High availability, for a process of its own: it is never switched off again.
void Pair() {
  support::StartRuntime();
  constexpr uint32_t kInstance = 0x21801;  // more than the 16 bits of a platform module
  const struct {
    bool enabled;
    uint32_t state;
    uint32_t cpi;
    uint32_t otherSide;
  } states[] = {{false, 2, 0x80001055, 2},
                {false, 1, 0x80001055, 0},
                {true, 2, 0x80001055, 2},
                {true, 0, 0x90001055, 1},
                {true, 1, 0x90001055, 0}};
  for (const auto& s : states) {
    if (s.enabled) TOLA_EnableCompHaState();
    TOLA_CompDefaultHaStateSet(s.state);
    EXPECT_EQ(MakeCompCpi(4181), s.cpi);
    EXPECT_EQ(GetDstDmsHaState("10.0.0.1", "10.0.0.2"), s.otherSide);
    EXPECT_EQ(GetDstDmsHaState("10.0.0.1", "10.0.0.1"), s.state);
  }
  const TOLA_COMP_DST_PROC_S local = Process(kProcId, {kInstance});
  const TOLA_COMP_DST_PROC_S dst[] = {Process(500, {1802}, "no address"), Process(501, {1803}, "10.0.0.2")};
  EXPECT_EQ(TolaCompInit(&local, 2, dst), 0u) << "the failing one is skipped";
  for (const auto& [csi, state] : {std::pair{kInstance, 1u}, {1803u, 0u}}) {
    CompAddr addr{};
    EXPECT_EQ(CompManagerImpl::GetInstance().GetCompAddr(csi, addr), 0u);
    EXPECT_EQ(addr.haState, state);
  }
  const TOLA_COMP_TYPE_S type = CompType(kInstance, support::Keep);
  EXPECT_EQ(TolaOsKickOffComps(&type), 0u);
  EXPECT_EQ(TolaCompMsgSend(0x10000000 + kInstance, NewCompMsg(0x80000000 + kInstance, 1, 1, "ha")), 0u);
  EXPECT_EQ(Arrived().Take().data, "ha");
}

TEST(CompAddressTest, HighAvailabilityChangesAddressesAndStates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((Pair(), exit(::testing::Test::HasFailure())), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace comp_test
