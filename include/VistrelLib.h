/*
 * Copyright (C) 2026 The libVistrel Authors
 *
 * Licensed under the Apache License, Version 2.0 (the "License");
 * you may not use this file except in compliance with the License.
 * You may obtain a copy of the License at
 *
 *      http://www.apache.org/licenses/LICENSE-2.0
 *
 * Unless required by applicable law or agreed to in writing, software
 * distributed under the License is distributed on an "AS IS" BASIS,
 * WITHOUT WARRANTIES OR CONDITIONS OF ANY KIND, either express or implied.
 * See the License for the specific language governing permissions and
 * limitations under the License.
 */

// The classes behind the flat interface: the library object mirova::Vistrel,
// its service client mirova::HdmiControl and its event worker thread.
//
// Lock order, first to last; a thread holding a lock takes only later ones:
//   the entry frame's mLibLock
//   Vistrel::mLock            (callers; serviceDied and the recovery thread,
//                              with the owner pinned)
//   Vistrel::mTopoLock        (topology; taken without mLock by its own paths)
//   HdmiControl::mCallbackLock
//   HdmiControl::mServiceLock
// HdmiControl::mOwnerLock is taken alone, or by handleEvent before the leaf
// locks Vistrel::mEventLock and WorkerThread::mWaitLock, which are never held
// together. Waits: the release joins the worker holding no lock of the
// object (its callback may call in); detach() waits for death notices and
// recovery attempts with no lock held; the release joins the recovery thread
// holding mLock, which that thread no longer takes once detached; the waits
// for the service hold mLock, and mCallbackLock or mTopoLock where the
// operation took them, and need nothing but the service.

#pragma once

#include <Vistrel.h>
#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/Condition.h>
#include <utils/KeyedVector.h>
#include <utils/Mutex.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>
#include <utils/Thread.h>
#include <utils/Vector.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtil.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtilCallback.h>

#include <atomic>
#include <functional>
#include <thread>

namespace mirova {

using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtil;
using ::vendor::mirova::hdmiutil::provider::V1_0::IHdmiUtilCallback;

class Vistrel;

// The service client of one library object: holds the connection to the
// service, registers for its events and hands arriving events to the owner.
//
// Recovery: while events are wanted (setCallback() until removeCallback()),
// any loss of the service (a death notice, a refused linkToDeath, a
// registration that meets a dead service) starts a recovery thread of this
// object's own looking the service up every 100 ms, and at each registration
// notice, until it is connected and registered again.
class HdmiControl : public IHdmiUtilCallback,
                    public virtual ::android::hardware::hidl_death_recipient {
  public:
    explicit HdmiControl(Vistrel* owner);
    ~HdmiControl() override;

    // One attempt to acquire the service when none is held; the service held
    // afterwards, or null.
    ::android::sp<IHdmiUtil> tryGetService() EXCLUDES(mServiceLock);
    // The held service, waiting for one in 100 ms steps without limit. The
    // owner's mLock keeps it from being dropped while in use.
    IHdmiUtil* getService() EXCLUDES(mServiceLock);
    // As getService(), but with a reference of its own, for the paths that
    // call the service without the owner's mLock.
    ::android::sp<IHdmiUtil> getServiceRef() EXCLUDES(mServiceLock);

    void setCallback() EXCLUDES(mCallbackLock);
    // A service instance was registered: a recovery in progress tries it at once.
    void serviceRegistered() EXCLUDES(mServiceLock);
    void removeCallback() EXCLUDES(mCallbackLock);
    // removeCallback() for a caller that already holds mCallbackLock.
    void removeCallbackLocked() REQUIRES(mCallbackLock);

    ::android::hardware::Return<void> handleEvent(int32_t event, int32_t param1, int32_t param2,
                                                  int32_t param3, int64_t param4) override;
    void serviceDied(uint64_t cookie,
                     const ::android::wp<::android::hidl::base::V1_0::IBase>& who) override;

    // Cuts the link to the owner before it is destroyed. Events and death
    // notices that arrive afterwards touch nothing of the owner.
    void detach() EXCLUDES(mOwnerLock);
    // Ends the recovery thread, then withdraws the event registration when
    // the owner is released, so that a late destruction of this object
    // cannot withdraw a newer registration of the same process.
    void withdrawOnRelease() EXCLUDES(mCallbackLock);

    int32_t pid() const { return mPid; }

    // Serialises registration and withdrawal with the service.
    ::android::Mutex mCallbackLock ACQUIRED_BEFORE(mServiceLock);

  private:
    // Links a newly acquired service to this object's death notice and
    // renews the event registration with it; a refused link is a death.
    void attachService(const ::android::sp<IHdmiUtil>& service) REQUIRES(mServiceLock);
    // tryGetService() for a holder of mServiceLock; `logFailure`: log a failed lookup.
    ::android::sp<IHdmiUtil> acquireLocked(bool logFailure = true) REQUIRES(mServiceLock);
    // Registers with the held service under this process's id and name; a
    // dead service is dropped.
    void registerLocked() REQUIRES(mServiceLock);
    // The held service is dead: forgets it (into mDropped, to be released
    // after the lock) and wakes the recovery thread.
    void dropServiceLocked() REQUIRES(mServiceLock);
    void clearService(uint64_t generation) EXCLUDES(mServiceLock);
    // Events are wanted and the service is lost or not registered with.
    bool needsRecoveryLocked() const REQUIRES(mServiceLock);
    void recoveryLoop() EXCLUDES(mServiceLock);
    // One recovery attempt under the owner's locks; true when nothing is left to do.
    bool recoverOnce() EXCLUDES(mCallbackLock, mServiceLock);
    void stopRecovery() EXCLUDES(mCallbackLock, mServiceLock);
    Vistrel* pinOwner() EXCLUDES(mOwnerLock);
    void unpinOwner() EXCLUDES(mOwnerLock);

    // The service proxy; null while not connected. Written under mServiceLock.
    ::android::sp<IHdmiUtil> mService GUARDED_BY(mServiceLock);
    // mService's pointer for lock-free reads by holders of the owner's mLock,
    // set once the service is linked. Cleared without mLock only for a service
    // never published here, so a pointer read under mLock stays valid.
    std::atomic<IHdmiUtil*> mServiceRaw{nullptr};
    // A service dropped under mServiceLock, released after it (its release
    // may end the service's objects, which may hold this one).
    ::android::sp<IHdmiUtil> mDropped GUARDED_BY(mServiceLock);
    // Which acquisition mService came from; death notices carry it as cookie.
    uint64_t mGeneration GUARDED_BY(mServiceLock) = 0;
    // True from setCallback() until removeCallback(): renew on reconnection.
    bool mRegistered GUARDED_BY(mServiceLock) = false;
    // The generation the registration was made with; 0: none.
    uint64_t mRegisteredWith GUARDED_BY(mServiceLock) = 0;
    // A registration notice came since the last recovery attempt.
    bool mNoticed GUARDED_BY(mServiceLock) = false;
    // The recovery thread is to end (set once, by the release).
    bool mStopping GUARDED_BY(mServiceLock) = false;
    // A loss was logged and its recovery not yet.
    bool mLossLogged GUARDED_BY(mServiceLock) = false;
    // Signalled, with mServiceLock, at a loss, a notice and the stop.
    ::android::Condition mRecoveryWake;
    // Looks the service up after a loss; started by the first setCallback().
    std::thread mRecovery GUARDED_BY(mCallbackLock);
    // True once the registration was withdrawn for the owner's release.
    bool mWithdrawn GUARDED_BY(mCallbackLock) = false;
    // The library object served; null once detached. Not owned.
    Vistrel* mOwner GUARDED_BY(mOwnerLock);
    // Death notices running with the owner pinned; detach() waits for them.
    int mOwnerPins GUARDED_BY(mOwnerLock) = 0;
    // The own process id, sent with registration and withdrawal.
    const int32_t mPid;
    // Serialises acquisition of the service.
    ::android::Mutex mServiceLock;
    // Guards mOwner against the owner's destruction; taken alone, or before
    // the owner's event queue and worker locks.
    ::android::Mutex mOwnerLock;
    ::android::Condition mOwnerUnpinned;
    // Announces new registrations of the service; made with the first setCallback().
    ::android::sp<::android::hidl::manager::V1_0::IServiceNotification> mRestartWatch
            GUARDED_BY(mCallbackLock);
};

// The one library object behind the exported functions.
class Vistrel : public ::android::RefBase {
  public:
    Vistrel();
    ~Vistrel() override;

    // Delivers queued events to the caller's callbacks, one per loop.
    class WorkerThread : public ::android::Thread {
      public:
        explicit WorkerThread(Vistrel* parent);
        ~WorkerThread() override;

        // Wakes the worker: an event was queued or the thread is to stop.
        void wake() EXCLUDES(mWaitLock);
        // Asks the worker to leave its loop and waits until it has.
        void stop();

      private:
        bool threadLoop() override;

        // Cleared only by the library object's destructor.
        std::atomic<bool> mKeepRunning{true};
        // Guards the wait on mWaitCond and mWoken.
        ::android::Mutex mWaitLock;
        ::android::Condition mWaitCond;
        // Set by wake(), cleared by the worker before it looks at the queue,
        // so that a wake-up given between its look and its wait is not lost.
        bool mWoken GUARDED_BY(mWaitLock) = false;
        // The library object whose queue is served; not owned.
        Vistrel* const mParent;
    };

    // --- Service connection and events
    HdmiControl* getHdmiControl() REQUIRES(mLock);
    int tryGetService();
    int acquireLock(int lockId);
    void releaseLock(int lockId);
    void setCallback();
    void removeCallback();
    size_t getEventsSize();
    void handleEventAsync(_vistrel_event event);
    // The library object whose callback the calling thread is running, or
    // null: lets the entry frame refuse a call that a release waits for.
    static const Vistrel* callbackObject();

    // --- Sink capabilities
    int getTVCapInfo(_HDMITVCapInfo* pInfo);
    int getEDIDSupportList(int hdrFilter);
    const char* findVICName(HDMI_VIC_ENUM code);
    int getHDRSupportList(int* list, int capability, int* len);
    int hasHDR();
    int getColorSet(int* color, int* depth, int a, int b, int c);
    int checkIfHDMIPlugged();
    int getHDMIEDIDReady();
    int isTVSupport3D();
    void getSinkCapability();
    int getEDIDRawData(unsigned char* buffer, int length);
    int setFakeEDID(const unsigned char* edid, int length);

    // --- Output format
    int getCurrentOutputFormat(_HDMI_OUTPUT_FORMAT* fmt);
    int readOutputFormat(_HDMI_OUTPUT_FORMAT* fmt);
    int getResolvedAutoOutputFormat(_HDMI_OUTPUT_FORMAT* fmt);
    int setOutputFormat(const _HDMI_OUTPUT_FORMAT& fmt, int flags);
    int saveOutputFormat(const _HDMI_OUTPUT_FORMAT& fmt);
    int isOutputFormatSupported(_HDMI_OUTPUT_FORMAT fmt);
    int hwcSetOutputFormat(HDMI_VIC_ENUM vic, int vicParam);
    int hwcSetContentType(HDMI_CONTENT_TYPE type);
    int setHDMIFormat3D(int format3d, float param);
    int setVideoFps(int value1, int value2);

    // --- HDR and Dolby Vision
    int setDVHDRModeForContent();
    int envSupportsDv();
    int isUnderDoviMode(int value);
    int checkHDRModeSupported(int hdrMode);
    int readHDRAutoProperty();
    void setHDREotfMode(int eotfMode);

    // --- HDR content topology
    int updateVideoPlaneUsage(int source, int instance0, int instance1, int instance2,
                              int instance3, int hdr, int plane);
    int deliverHDRContentTopo(HDRContentTopo_t topo);
    int handleTopoInfo(HDRContentTopo_t* latest, HDRContentTopo_t* stored);
    void dumpTopoInfo(HDRContentTopo_t* topo);

    // --- Dual display routing
    int runtimeSetDpHDMISetting(int opMode);
    void forceSwitchToSameSourceRuntime();
    void restoreDualDisplayMode(int displayId, INTERFACE_TYPE type);
    int getDiffSourceValue();
    int setDiffSourceValue(int value);

    // --- VRR and ALLM
    void initStaticVrrGroupInfo();
    _HDMI_VRR_GROUP_INFO* getVRRGroupInfo();
    int setVRREnable(int enable);
    int getVRREnabled();
    int setVRRFps(int fps);
    int setALLM(int enable);

    // --- Numbered properties
    int getPropVal(int index);
    int setPropVal(int index, int value);
    int clearOneStepInfo();
    int getForceOffVal();

    // --- Device controls and diagnostics
    int readColorModeEnum();
    int saveColorModeEnum(int colorMode);
    int readEdidAutoMode();
    int saveEdidAutoMode(int autoMode);
    void setHDMIEnable(int enable);
    void setDisplayState(int state);
    int control5v(int value);
    int hdmiIsOn();
    void dumpState(int fd);
    int processHDMIDebugCmd(int cmd, int fd);
    int emulateFwCallbackHDRType(int a, int b);
    void getHidlInfo(int a, int b);

    // The object mutex: serialises the operations that call the service.
    ::android::Mutex mLock ACQUIRED_BEFORE(mTopoLock);
    // The format cache: written by getEDIDSupportList, read by the entry
    // frame's hdmi_queryEDIDSupportList.
    ::android::Vector<_HDMI_FORMAT_SUPPORT> mFormatCache;
    // The caller's callbacks; not owned. Written by the entry frame, read by
    // the worker at each delivery.
    std::atomic<VistrelCallback*> mCallback{nullptr};
    std::atomic<VistrelCallback2*> mCallback2{nullptr};

  private:
    friend class HdmiControl;

    using FormatRead =
            ::android::hardware::Return<void> (IHdmiUtil::*)(IHdmiUtil::readOutputFormat_cb);

    // This object's service client, for the paths that run without mLock.
    HdmiControl* control();
    // The service for one transaction of an operation holding mLock.
    IHdmiUtil* service() REQUIRES(mLock) { return getHdmiControl()->getService(); }
    // The three output format reads: one record-form transaction each.
    int readFormat(const char* method, FormatRead read, _HDMI_OUTPUT_FORMAT* fmt);
    // Value reads that tell a transport failure (false) from an answer.
    bool readPropVal(int index, int32_t* value);
    bool readEnvSupportsDv(int32_t* value);
    // Appends one event and wakes the worker; called by HdmiControl.
    void queueEvent(const _vistrel_event& event);
    // Takes the oldest queued event; false when the queue is empty.
    bool takeEvent(_vistrel_event* event);
    // Reads the current format, applies it again with `flags`; the routing
    // switches' common step.
    void reapplyCurrentFormat(int flags, const char* caller);
    // Brings the persisted 4K HDR switch and numbered property 9 into step.
    void syncHdr4kProperty();
    // Compares and stores a topology under mTopoLock; true when it changed.
    bool storeTopo(const HDRContentTopo_t& latest, HDRContentTopo_t* stored) REQUIRES(mTopoLock);
    // Stores the composer's two plane records as its topology; true when it
    // changed.
    bool storeHwcPlanes() REQUIRES(mTopoLock);
    // Sends a topology to the service without mLock, in store order.
    void sendTopo(const HDRContentTopo_t& topo) REQUIRES(mTopoLock);

    // The event worker; set from construction until destruction.
    ::android::sp<WorkerThread> mWorker;
    // The service's answer whether routing may change at run time; -1: not asked.
    std::atomic<int32_t> mRuntimeDpHDMISupported{-1};
    // Guards the HDR topology state below.
    ::android::Mutex mTopoLock;
    // Last topology handed on for the composer (source 1) and the player (3).
    HDRContentTopo_t mHwcTopo GUARDED_BY(mTopoLock);
    HDRContentTopo_t mPlayerTopo GUARDED_BY(mTopoLock);
    // The composer's two plane records (planes 1 and 2).
    HDRInstance_t mPlaneInstance[2] GUARDED_BY(mTopoLock);
    // The event queue: the events in [mEventsHead, mEventsTail), oldest first;
    // guarded by mEventLock.
    ::android::Vector<_vistrel_event> mEvents GUARDED_BY(mEventLock);
    size_t mEventsHead GUARDED_BY(mEventLock) = 0;
    size_t mEventsTail GUARDED_BY(mEventLock) = 0;
    ::android::Mutex mEventLock;
    // The VRR group table, fixed after construction.
    _HDMI_VRR_GROUP_INFO mVrrGroupInfo;
    // Numbered property 9 as first read by the composer path; -1: not read.
    int32_t mHdr4kCache = -1;
};

}  // namespace mirova
