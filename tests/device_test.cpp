// What holds on a device as it does on a host. What others were built against: the slots of virtual
// operations, the order of the session's members, the size of each record. And the controls, and a
// described frame in a raw file. Includes nothing that a host has and a device has not, and reads
// no log.

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <numeric>
#include <string>
#include <vector>

#include "FDSession.h"
#include "YUVFile.h"
#include "zoru_ycbcr.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using namespace android::hardware;                                           // NOLINT
using android::hidl::base::V1_0::IBase;

/** What a pointer to a member is made of. */
template <typename Pointer>
auto partsOf(Pointer pointer) {
    std::array<size_t, sizeof(pointer) / sizeof(size_t)> parts;
    memcpy(&parts, &pointer, sizeof(pointer));
    return parts;
}

/** Where these operations stand in their class's table, which their pointers say. */
template <typename... Operations>
void expectInOrder(size_t slot, Operations... operations) {
    for (const auto& [pointer, adjustment] : {partsOf(operations)...}) {
        // Which of the two says so is the processor's business.
        EXPECT_EQ((pointer | adjustment) & 1U, 1U) << "is not virtual";
        EXPECT_EQ(pointer / sizeof(void*), slot) << "an operation has left its place in the table";
        ++slot;
    }
}

using Place = std::array<size_t, 3>;  // offset, size, alignment

template <typename Class, typename Type>
Place placeOf(Type Class::*member) {
    return {partsOf(member)[0], sizeof(Type), alignof(Type)};  // NOLINT: a pointer's own size, too
}

/** An explicit instantiation may name private members. It defines the function that says where. */
std::vector<Place> members();
template <auto... places>
struct Members {
    friend std::vector<Place> members() { return {placeOf(places)...}; }
};
template struct Members<
    &FDSessionImpl::mCirculatingBuffers, &FDSessionImpl::mGraphicBuffers,
    &FDSessionImpl::mConfigSet, &FDSessionImpl::mCallback, &FDSessionImpl::mConfiguration,
    &FDSessionImpl::mCaptureRequests, &FDSessionImpl::mCaptureResults,
    &FDSessionImpl::mResultCondition, &FDSessionImpl::mResultMutex, &FDSessionImpl::mInterface,
    &FDSessionImpl::mTrackControl, &FDSessionImpl::mSceneControl, &FDSessionImpl::mPTZControl,
    &FDSessionImpl::mTrackingMode, &FDSessionImpl::mSceneCallback>;

/** The session's bases, to see where its members begin. */
struct Bases : FDSession, android::Thread {
    char first;
};

template <size_t size, size_t alignment, typename... Types>
constexpr bool kHave = ((sizeof(Types) == size && alignof(Types) == alignment) && ...);

/** The session's thread stays, so it is there before a test begins. */
struct DeviceTest : testing::Test {
    static void SetUpTestSuite() { FDSession::getInstance(); }
};

}  // namespace

TEST(ContractTest, OperationsKeepTheirSlots) {
    expectInOrder(
        0, &FDSession::getInterface, &FDSession::getBufferForId, &FDSession::getConfiguration,
        &FDSession::getProcessCaptureRequest, &FDSession::isCaptureRequestReady,
        &FDSession::sendNotify, &FDSession::sendCaptureResult, &FDSession::setSceneControl,
        &FDSession::getSceneControl, &FDSession::setTrackingMode, &FDSession::getTrackingMode,
        &FDSession::setPTZControl, &FDSession::getPTZControl, &FDSession::getPeopleCount,
        &FDSession::setTrackControl, &FDSession::getTrackControl, &FDSession::setSceneCallback);
    // A destructor has two slots, and no pointer to it.
    expectInOrder(19, &FDSessionImpl::onFirstRef, &FDSessionImpl::threadLoop);
    expectInOrder(0, &ISceneCallback::onSceneControl, &ISceneCallback::onPTZControl,
                  &ISceneCallback::onTrackControl, &ISceneCallback::onTrackingMode);
    expectInOrder(0, &IBase::isRemote, &IBase::interfaceChain, &IBase::debug,
                  &IBase::interfaceDescriptor, &IBase::getHashChain, &IBase::setHALInstrumentation,
                  &IBase::linkToDeath, &IBase::ping, &IBase::getDebugInfo,
                  &IBase::notifySyspropsChanged, &IBase::unlinkToDeath);
    expectInOrder(13, &IFDSession::setCallback, &IFDSession::configure,
                  &IFDSession::processCaptureRequest);
    expectInOrder(13, &IFDSessionCallback::processCaptureResult, &IFDSessionCallback::notify);
}

TEST(ContractTest, MembersOfTheSessionFollowOneAnother) {
    size_t end = placeOf(&Bases::first)[0];
    for (const auto& [offset, size, alignment] : members()) {
        EXPECT_EQ(offset, (end + alignment - 1) / alignment * alignment)
            << "something stands before the member of " << size << " bytes";
        end = offset + size;
    }
}

TEST(ContractTest, RecordsKeepTheirSizeAndAlignment) {
    EXPECT_TRUE((kHave<16, 8, hidl_vec<int32_t>, hidl_handle, hidl_string, FDNotifyMsg>));
    EXPECT_TRUE((kHave<16, 4, Crop>));
    EXPECT_TRUE((kHave<24, 8, StreamConfiguration>));
    EXPECT_TRUE((kHave<40, 8, camera::device::V3_2::Stream, SceneControl>));
    EXPECT_TRUE((kHave<64, 8, TrackControl>));
    EXPECT_TRUE((kHave<72, 8, StreamBuffer>));
    EXPECT_TRUE((kHave<80, 8, android_ycbcr>));
    EXPECT_TRUE((kHave<120, 8, CaptureRequest>));
    EXPECT_TRUE((kHave<128, 8, CaptureResult, CaptureRequestItem>));
}

TEST_F(DeviceTest, StoresControlsAndPutsTheViewBack) {
    const sp<FDSession> session = FDSession::getInstance();
    SceneControl scene = {};
    scene.peopleCount = 3;
    session->setSceneControl(scene);
    EXPECT_EQ(session->getPeopleCount(), 3);
    session->setTrackingMode(TrackingMode::GROUP);
    session->setPTZControl(scene);
    session->setTrackingMode(TrackingMode::OFF);
    session->getPTZControl(scene);
    EXPECT_EQ(scene.crops[0].width, 1280);
}

TEST_F(DeviceTest, WritesFramesOfMemoryAndPlaysThemInALoop) {
    // A device's own place for what tests write is not everybody's.
    const bool isDevice = access("/data/local/tmp", W_OK) == 0;
    const std::string folder = isDevice ? "/data/local/tmp/" : testing::TempDir();
    const std::string name = folder + "fdstream-device-test-" + std::to_string(getpid());
    std::ofstream(name) << "what was there before";
    std::vector<uint8_t> memory(128 * 32 + 128 * 16);
    std::iota(memory.begin(), memory.end(), uint8_t{0});
    zoru_ycbcr frame(memory.data(), 4, 4);
    EXPECT_EQ(YUVFile(name.c_str(), 4, 4).putFrame(frame), 24);
    YUVFile in(name.c_str(), 4, 4);
    // Four rows of luma, and two of chroma behind 32 of 128 bytes.
    const std::string row("\x00\x01\x02\x03\x80\x81\x82\x83", 8);
    const std::string rows = row + row + row;
    for (int i = 0; i < 2; ++i) {
        const uint8_t* const bytes = in.getFrame();
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(std::string(bytes, bytes + 24), rows);
    }
    remove(name.c_str());
}
