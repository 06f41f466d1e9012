// What others were built against: the slots of virtual operations, the order of the session's
// members, and the size of each record. Includes nothing that a host has and a device has not.

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <system/graphics.h>

#include "FDSession.h"

namespace {

using namespace vendor::zoru::zoruprovider::fdstream::V1_0;                  // NOLINT
using namespace vendor::zoru::zoruprovider::fdstream::V1_0::implementation;  // NOLINT
using android::hardware::hidl_handle;
using android::hardware::hidl_string;
using android::hardware::hidl_vec;
using android::hardware::camera::device::V3_2::Stream;
using android::hidl::base::V1_0::IBase;

/** Where the operation stands in its class's table, which its pointer says. */
template <typename Operation>
size_t slotOf(Operation operation) {
    struct {
        size_t pointer, adjustment;
    } parts = {};
    static_assert(sizeof(parts) == sizeof(operation));
    memcpy(&parts, &operation, sizeof(parts));
#ifdef __aarch64__
    EXPECT_EQ(parts.adjustment & 1U, 1U) << "is not virtual";
    return parts.pointer / sizeof(void*);
#else
    EXPECT_EQ(parts.pointer & 1U, 1U) << "is not virtual";
    return (parts.pointer - 1) / sizeof(void*);
#endif
}

template <typename... Operations>
void expectInOrder(size_t slot, Operations... operations) {
    for (const size_t found : {slotOf(operations)...}) {
        EXPECT_EQ(found, slot) << "an operation has left its place in the table";
        ++slot;
    }
}

struct Place {
    size_t offset, size, alignment;
};
/** Not a variable: it would be made after others have filled it. */
std::vector<Place>& members() {
    static std::vector<Place> all;
    return all;
}

template <typename Class, typename Type>
Place placeOf(Type Class::*member) {
    Place place = {0, sizeof(Type), alignof(Type)};
    static_assert(sizeof(place.offset) == sizeof(member));
    memcpy(&place.offset, &member, sizeof(member));
    return place;
}

/** An explicit instantiation may name private members. It says where these are. */
template <typename... Types>
struct Of {
    template <Types FDSessionImpl::*... places>
    struct Members {
        inline static const bool kKnown = (members() = {placeOf(places)...}, true);
    };
};
template struct Of<std::map<int32_t, std::map<uint64_t, buffer_handle_t>>,
                   std::map<uint64_t, sp<GraphicBuffer>>, bool, sp<IFDSessionCallback>,
                   StreamConfiguration, std::deque<CaptureRequestItem>, std::deque<CaptureResult>,
                   std::condition_variable, std::mutex, sp<IFDSession>, TrackControl, SceneControl,
                   SceneControl, TrackingMode, ISceneCallback*>::
    Members<&FDSessionImpl::mCirculatingBuffers, &FDSessionImpl::mGraphicBuffers,
            &FDSessionImpl::mConfigSet, &FDSessionImpl::mCallback, &FDSessionImpl::mConfiguration,
            &FDSessionImpl::mCaptureRequests, &FDSessionImpl::mCaptureResults,
            &FDSessionImpl::mResultCondition, &FDSessionImpl::mResultMutex,
            &FDSessionImpl::mInterface, &FDSessionImpl::mTrackControl,
            &FDSessionImpl::mSceneControl, &FDSessionImpl::mPTZControl,
            &FDSessionImpl::mTrackingMode, &FDSessionImpl::mSceneCallback>;

/** The session's bases, to see where its members begin. */
struct Bases : FDSession, android::Thread {
    char first;
};

using Sizes = std::vector<std::pair<size_t, size_t>>;

template <typename... Types>
Sizes sizesOf() {
    return {{sizeof(Types), alignof(Types)}...};
}

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
    ASSERT_EQ(members().size(), 15U);
    size_t end = placeOf(&Bases::first).offset;
    for (const auto& [offset, size, alignment] : members()) {
        EXPECT_EQ(offset, (end + alignment - 1) / alignment * alignment)
            << "something stands before the member of " << size << " bytes";
        end = offset + size;
    }
}

TEST(ContractTest, RecordsKeepTheirSizeAndAlignment) {
    EXPECT_EQ((sizesOf<hidl_vec<int32_t>, hidl_handle, hidl_string, Stream, StreamConfiguration,
                       StreamBuffer, CaptureRequest, CaptureResult>()),
              (Sizes{{16, 8}, {16, 8}, {16, 8}, {40, 8}, {24, 8}, {72, 8}, {120, 8}, {128, 8}}));
    EXPECT_EQ((sizesOf<Crop, SceneControl, TrackControl, FDNotifyMsg, CaptureRequestItem,
                       android_ycbcr>()),
              (Sizes{{16, 4}, {40, 8}, {64, 8}, {16, 8}, {128, 8}, {80, 8}}));
}
