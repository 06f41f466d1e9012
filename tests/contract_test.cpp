// What others were built against: the slots of virtual operations, the order of the session's
// members, and the size of each record. Includes nothing that a host has and a device has not.

#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
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

struct Slot {
    const char* operation;
    size_t found;
};

template <typename Operation>
Slot named(const char* name, Operation operation) {
    return {name, slotOf(operation)};
}

#define SLOT(operation) named(#operation, &operation)  // NOLINT

void expectInOrder(size_t first, const std::vector<Slot>& slots) {
    for (size_t i = 0; i < slots.size(); ++i) {
        EXPECT_EQ(slots[i].found, first + i)
            << slots[i].operation << " has left its place in the table of virtual operations";
    }
}

struct Place {
    size_t offset, size, alignment;
};
constexpr size_t kContractMembers = 15;
std::array<Place, kContractMembers> sMembers;

template <typename Class, typename Type>
size_t offsetOf(Type Class::*member) {
    size_t offset = 0;
    static_assert(sizeof(offset) == sizeof(member));
    memcpy(&offset, &member, sizeof(offset));
    return offset;
}

/** An explicit instantiation may name a private member. It fills in the place with that number. */
template <size_t number, typename Type, Type FDSessionImpl::*member>
struct Member {
    static const bool kKnown;
};
template <size_t number, typename Type, Type FDSessionImpl::*member>
const bool Member<number, Type, member>::kKnown =
    (sMembers[number] = {offsetOf(member), sizeof(Type), alignof(Type)}, true);  // NOLINT

using Buffers = std::map<int32_t, std::map<uint64_t, buffer_handle_t>>;
using Wrappers = std::map<uint64_t, sp<GraphicBuffer>>;
template struct Member<0, Buffers, &FDSessionImpl::mCirculatingBuffers>;
template struct Member<1, Wrappers, &FDSessionImpl::mGraphicBuffers>;
template struct Member<2, bool, &FDSessionImpl::mConfigSet>;
template struct Member<3, sp<IFDSessionCallback>, &FDSessionImpl::mCallback>;
template struct Member<4, StreamConfiguration, &FDSessionImpl::mConfiguration>;
template struct Member<5, std::deque<CaptureRequestItem>, &FDSessionImpl::mCaptureRequests>;
template struct Member<6, std::deque<CaptureResult>, &FDSessionImpl::mCaptureResults>;
template struct Member<7, std::condition_variable, &FDSessionImpl::mResultCondition>;
template struct Member<8, std::mutex, &FDSessionImpl::mResultMutex>;
template struct Member<9, sp<IFDSession>, &FDSessionImpl::mInterface>;
template struct Member<10, TrackControl, &FDSessionImpl::mTrackControl>;
template struct Member<11, SceneControl, &FDSessionImpl::mSceneControl>;
template struct Member<12, SceneControl, &FDSessionImpl::mPTZControl>;
template struct Member<13, TrackingMode, &FDSessionImpl::mTrackingMode>;
template struct Member<14, ISceneCallback*, &FDSessionImpl::mSceneCallback>;

/** The session's bases, to see where its members begin. */
struct Bases : FDSession, android::Thread {
    char first;
};

struct Record {
    const char* name;
    Place place, wanted;
};

template <typename Type>
Record recordOf(const char* name, size_t size, size_t alignment) {
    return {name, {0, sizeof(Type), alignof(Type)}, {0, size, alignment}};
}

#define RECORD(type, ...) recordOf<type>(#type, __VA_ARGS__)

}  // namespace

TEST(ContractTest, OperationsKeepTheirSlots) {
    expectInOrder(0, {SLOT(FDSession::getInterface), SLOT(FDSession::getBufferForId),
                      SLOT(FDSession::getConfiguration), SLOT(FDSession::getProcessCaptureRequest),
                      SLOT(FDSession::isCaptureRequestReady), SLOT(FDSession::sendNotify),
                      SLOT(FDSession::sendCaptureResult), SLOT(FDSession::setSceneControl),
                      SLOT(FDSession::getSceneControl), SLOT(FDSession::setTrackingMode),
                      SLOT(FDSession::getTrackingMode), SLOT(FDSession::setPTZControl),
                      SLOT(FDSession::getPTZControl), SLOT(FDSession::getPeopleCount),
                      SLOT(FDSession::setTrackControl), SLOT(FDSession::getTrackControl),
                      SLOT(FDSession::setSceneCallback)});
    // A destructor has two slots, and no pointer to it.
    expectInOrder(19, {SLOT(FDSessionImpl::onFirstRef), SLOT(FDSessionImpl::threadLoop)});
    expectInOrder(0, {SLOT(ISceneCallback::onSceneControl), SLOT(ISceneCallback::onPTZControl),
                      SLOT(ISceneCallback::onTrackControl), SLOT(ISceneCallback::onTrackingMode)});
    expectInOrder(0, {SLOT(IBase::isRemote), SLOT(IBase::interfaceChain), SLOT(IBase::debug),
                      SLOT(IBase::interfaceDescriptor), SLOT(IBase::getHashChain),
                      SLOT(IBase::setHALInstrumentation), SLOT(IBase::linkToDeath),
                      SLOT(IBase::ping), SLOT(IBase::getDebugInfo),
                      SLOT(IBase::notifySyspropsChanged), SLOT(IBase::unlinkToDeath)});
    expectInOrder(13, {SLOT(IFDSession::setCallback), SLOT(IFDSession::configure),
                       SLOT(IFDSession::processCaptureRequest)});
    expectInOrder(
        13, {SLOT(IFDSessionCallback::processCaptureResult), SLOT(IFDSessionCallback::notify)});
}

TEST(ContractTest, MembersOfTheSessionFollowOneAnother) {
    size_t end = offsetOf(&Bases::first);
    for (size_t i = 0; i < kContractMembers; ++i) {
        const Place& member = sMembers[i];
        ASSERT_GT(member.size, 0U);
        EXPECT_EQ(member.offset, (end + member.alignment - 1) / member.alignment * member.alignment)
            << "something stands before member " << i + 1 << " of the contract's fifteen";
        end = member.offset + member.size;
    }
}

TEST(ContractTest, RecordsKeepTheirSizeAndAlignment) {
    const Record records[] = {
        RECORD(hidl_vec<int32_t>, 16, 8),
        RECORD(hidl_handle, 16, 8),
        RECORD(hidl_string, 16, 8),
        RECORD(Stream, 40, 8),
        RECORD(StreamConfiguration, 24, 8),
        RECORD(StreamBuffer, 72, 8),
        RECORD(CaptureRequest, 120, 8),
        RECORD(CaptureResult, 128, 8),
        RECORD(Crop, 16, 4),
        RECORD(SceneControl, 40, 8),
        RECORD(TrackControl, 64, 8),
        RECORD(FDNotifyMsg, 16, 8),
        RECORD(CaptureRequestItem, 128, 8),
        RECORD(android_ycbcr, 80, 8),
    };
    for (const auto& [name, place, wanted] : records) {
        EXPECT_EQ(place.size, wanted.size) << name << " has another size";
        EXPECT_EQ(place.alignment, wanted.alignment) << name << " has another alignment";
    }
}
