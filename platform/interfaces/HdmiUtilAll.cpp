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

// The interface library of vendor.mirova.hdmiutil.provider@1.0 on the host:
// what the generated headers declare and leave to the library (descriptors,
// the IBase methods of local objects, checked casts, service lookup and
// registration), and the proxy that stands for the binder between a client
// and the service.

#define LOG_TAG "vendor.mirova.hdmiutil.provider@1.0"

#include <hidl/HostServiceRegistry.h>
#include <hidl/HostTransport.h>
#include <log/log.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtil.h>
#include <vendor/mirova/hdmiutil/provider/1.0/IHdmiUtilCallback.h>

#include <memory>
#include <utility>

// The marshalling between processes, written at build time from the generated
// headers: structure field lists, proxy methods and dispatch functions.
#include "HdmiUtilRemote.inc"

namespace vendor {
namespace mirova {
namespace hdmiutil {
namespace provider {
namespace V1_0 {

using ::android::sp;
using ::android::wp;
using ::android::hardware::hidl_array;
using ::android::hardware::hidl_death_recipient;
using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::host::ServiceEntry;
using ::android::hidl::base::V1_0::IBase;
using ::vendor::mirova::hdmiutil::common::V1_0::hHDRContentTopo;
using ::vendor::mirova::hdmiutil::common::V1_0::OutputFormat;

const char* IHdmiUtil::descriptor = "vendor.mirova.hdmiutil.provider@1.0::IHdmiUtil";
const char* IHdmiUtilCallback::descriptor =
        "vendor.mirova.hdmiutil.provider@1.0::IHdmiUtilCallback";

namespace {

// The checked cast of the generated castFrom(): the object's interface chain
// must name the target interface. A proxy whose service has died fails in
// transport, as the chain cannot be asked for.
template <typename IChild>
Return<sp<IChild>> castInterface(const sp<IBase>& parent, bool emitError) {
    if (parent == nullptr) return sp<IChild>(nullptr);
    bool found = false;
    Return<void> asked = parent->interfaceChain([&found](const hidl_vec<hidl_string>& chain) {
        for (const hidl_string& name : chain) {
            if (name == IChild::descriptor) found = true;
        }
    });
    if (!asked.isOk()) {
        if (emitError) ALOGE("castFrom: %s", asked.description().c_str());
        return ::android::hardware::host::deadObjectStatus();
    }
    if (!found) return sp<IChild>(nullptr);
    return sp<IChild>(static_cast<IChild*>(parent.get()));
}

Return<void> answerChain(const char* descriptor, IBase::interfaceChain_cb& cb) {
    cb({hidl_string(descriptor), hidl_string(IBase::descriptor)});
    return ::android::hardware::Void();
}

// The client's end of the connection. While the service lives, each call
// reaches it as one transaction; after its death every call fails in
// transport with DEAD_OBJECT and result callbacks are not called.
class BpHwHdmiUtil : public IHdmiUtil {
  public:
    BpHwHdmiUtil(std::shared_ptr<ServiceEntry> entry, sp<IHdmiUtil> service)
        : mEntry(std::move(entry)), mService(std::move(service)) {}

    bool isRemote() const override { return true; }

    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        return mEntry->linkToDeath(recipient, cookie, wp<IBase>(this));
    }
    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        return mEntry->unlinkToDeath(recipient);
    }
    Return<void> ping() override {
        if (!mEntry->isAlive()) return ::android::hardware::host::deadObjectStatus();
        return ::android::hardware::Void();
    }
    Return<void> interfaceChain(interfaceChain_cb cb) override {
        if (!mEntry->isAlive()) return ::android::hardware::host::deadObjectStatus();
        return mService->interfaceChain(cb);
    }
    Return<void> interfaceDescriptor(interfaceDescriptor_cb cb) override {
        if (!mEntry->isAlive()) return ::android::hardware::host::deadObjectStatus();
        return mService->interfaceDescriptor(cb);
    }

// Forwards one call to the live service, or fails it as a dead binder does.
#define VISTREL_FORWARD(call)                                                         \
    do {                                                                              \
        if (!mEntry->isAlive()) return ::android::hardware::host::deadObjectStatus(); \
        return mService->call;                                                        \
    } while (0)

    Return<void> setCallback(int32_t pid, const hidl_string& processName,
                             const sp<IHdmiUtilCallback>& callback) override {
        VISTREL_FORWARD(setCallback(pid, processName, callback));
    }
    Return<void> removeCallback(int32_t pid) override {
        VISTREL_FORWARD(removeCallback(pid));
    }
    Return<void> readOutputFormat(readOutputFormat_cb cb) override {
        VISTREL_FORWARD(readOutputFormat(cb));
    }
    Return<void> saveOutputFormat(const OutputFormat& fmt) override {
        VISTREL_FORWARD(saveOutputFormat(fmt));
    }
    Return<int32_t> readEdidAutoMode() override {
        VISTREL_FORWARD(readEdidAutoMode());
    }
    Return<void> saveEdidAutoMode(int32_t mode) override {
        VISTREL_FORWARD(saveEdidAutoMode(mode));
    }
    Return<bool> checkIfHDMIPlugged() override {
        VISTREL_FORWARD(checkIfHDMIPlugged());
    }
    Return<bool> getHDMIEDIDReady() override {
        VISTREL_FORWARD(getHDMIEDIDReady());
    }
    Return<void> getEDIDRawData(getEDIDRawData_cb cb) override {
        VISTREL_FORWARD(getEDIDRawData(cb));
    }
    Return<bool> isTVSupport3D() override {
        VISTREL_FORWARD(isTVSupport3D());
    }
    Return<int32_t> setHDMIFormat3D(int32_t format3d, float param) override {
        VISTREL_FORWARD(setHDMIFormat3D(format3d, param));
    }
    Return<int32_t> setOutputFormat(const OutputFormat& fmt, int32_t flags) override {
        VISTREL_FORWARD(setOutputFormat(fmt, flags));
    }
    Return<void> getEDIDSupportList(getEDIDSupportList_cb cb) override {
        VISTREL_FORWARD(getEDIDSupportList(cb));
    }
    Return<void> getCurrentOutputFormat(getCurrentOutputFormat_cb cb) override {
        VISTREL_FORWARD(getCurrentOutputFormat(cb));
    }
    Return<void> setHDREotfMode(int32_t eotfMode) override {
        VISTREL_FORWARD(setHDREotfMode(eotfMode));
    }
    Return<void> getColorSet(int32_t a, int32_t b, int32_t c, getColorSet_cb cb) override {
        VISTREL_FORWARD(getColorSet(a, b, c, cb));
    }
    Return<void> reserved() override {
        VISTREL_FORWARD(reserved());
    }
    Return<void> saveColorModeEnum(int32_t colorMode) override {
        VISTREL_FORWARD(saveColorModeEnum(colorMode));
    }
    Return<int32_t> readColorModeEnum() override {
        VISTREL_FORWARD(readColorModeEnum());
    }
    Return<int32_t> readHDRAutoProperty() override {
        VISTREL_FORWARD(readHDRAutoProperty());
    }
    Return<int32_t> checkHDRModeSupported(int32_t hdrMode) override {
        VISTREL_FORWARD(checkHDRModeSupported(hdrMode));
    }
    Return<int32_t> isUnderDoviMode(int32_t value) override {
        VISTREL_FORWARD(isUnderDoviMode(value));
    }
    Return<void> setHDMIEnable(int32_t enable) override {
        VISTREL_FORWARD(setHDMIEnable(enable));
    }
    Return<void> getTVCapInfo(getTVCapInfo_cb cb) override {
        VISTREL_FORWARD(getTVCapInfo(cb));
    }
    Return<void> getSinkCapability() override {
        VISTREL_FORWARD(getSinkCapability());
    }
    Return<int32_t> acquireLock(int32_t lockId) override {
        VISTREL_FORWARD(acquireLock(lockId));
    }
    Return<void> releaseLock(int32_t lockId) override {
        VISTREL_FORWARD(releaseLock(lockId));
    }
    Return<void> clearOneStepInfo() override {
        VISTREL_FORWARD(clearOneStepInfo());
    }
    Return<int32_t> getDiffSourceValue() override {
        VISTREL_FORWARD(getDiffSourceValue());
    }
    Return<int32_t> setDiffSourceValue(int32_t value) override {
        VISTREL_FORWARD(setDiffSourceValue(value));
    }
    Return<void> setDisplayState(int32_t state) override {
        VISTREL_FORWARD(setDisplayState(state));
    }
    Return<void> getHDRSupportList(getHDRSupportList_cb cb) override {
        VISTREL_FORWARD(getHDRSupportList(cb));
    }
    Return<int32_t> envSupportsDv() override {
        VISTREL_FORWARD(envSupportsDv());
    }
    Return<void> setVRREnable(int32_t enable) override {
        VISTREL_FORWARD(setVRREnable(enable));
    }
    Return<int32_t> getVRREnabled() override {
        VISTREL_FORWARD(getVRREnabled());
    }
    Return<void> setVRRFps(int32_t fps) override {
        VISTREL_FORWARD(setVRRFps(fps));
    }
    Return<void> setPropVal(int32_t index, int32_t value) override {
        VISTREL_FORWARD(setPropVal(index, value));
    }
    Return<int32_t> getPropVal(int32_t index) override {
        VISTREL_FORWARD(getPropVal(index));
    }
    Return<void> getHidlInfo(int32_t a, int32_t b) override {
        VISTREL_FORWARD(getHidlInfo(a, b));
    }
    Return<int32_t> isRuntimeDpHDMISupported() override {
        VISTREL_FORWARD(isRuntimeDpHDMISupported());
    }
    Return<int32_t> getInterfaceType() override {
        VISTREL_FORWARD(getInterfaceType());
    }
    Return<bool> getForceOffVal() override {
        VISTREL_FORWARD(getForceOffVal());
    }
    Return<void> handleTopoInfo(const hHDRContentTopo& topo) override {
        VISTREL_FORWARD(handleTopoInfo(topo));
    }
    Return<void> dumpState(const hidl_handle& fd) override {
        VISTREL_FORWARD(dumpState(fd));
    }
    Return<int32_t> setVideoFps(int32_t value1, int32_t value2) override {
        VISTREL_FORWARD(setVideoFps(value1, value2));
    }
    Return<int32_t> emulateFwCallbackHDRType(int32_t a, int32_t b) override {
        VISTREL_FORWARD(emulateFwCallbackHDRType(a, b));
    }
    Return<int32_t> processHDMIDebugCmd(int32_t cmd, const hidl_handle& fd) override {
        VISTREL_FORWARD(processHDMIDebugCmd(cmd, fd));
    }
    Return<void> setALLM(int32_t enable) override {
        VISTREL_FORWARD(setALLM(enable));
    }
    Return<int32_t> isOutputFormatSupported(const OutputFormat& fmt) override {
        VISTREL_FORWARD(isOutputFormatSupported(fmt));
    }
    Return<int32_t> control5v(int32_t value) override {
        VISTREL_FORWARD(control5v(value));
    }
    Return<void> getResolvedAutoOutputFormat(getResolvedAutoOutputFormat_cb cb) override {
        VISTREL_FORWARD(getResolvedAutoOutputFormat(cb));
    }
    Return<void> setFakeEDID(const hidl_array<uint8_t, 256>& edid) override {
        VISTREL_FORWARD(setFakeEDID(edid));
    }

#undef VISTREL_FORWARD

  private:
    const std::shared_ptr<ServiceEntry> mEntry;
    // The far end. Kept for the proxy's lifetime, as a dead process's memory
    // would be gone, but never called once the entry has died.
    const sp<IHdmiUtil> mService;
};

// The proxies of objects in another process, and the dispatch of calls from
// another process to local objects.
using ::android::hardware::host::CallContext;
using ::android::hardware::host::SocketProxy;
using ::android::hardware::host::WireIn;
using ::android::hardware::host::WireOut;

class BpSockHdmiUtil : public SocketProxy<IHdmiUtil> {
  public:
    using SocketProxy::SocketProxy;
    VISTREL_REMOTE_IHdmiUtil_METHODS
};

class BpSockHdmiUtilCallback : public SocketProxy<IHdmiUtilCallback> {
  public:
    using SocketProxy::SocketProxy;
    VISTREL_REMOTE_IHdmiUtilCallback_METHODS
};

VISTREL_REMOTE_IHdmiUtil_DISPATCH;
VISTREL_REMOTE_IHdmiUtilCallback_DISPATCH;

template <typename I,
          ::android::status_t (*Serve)(I*, uint32_t, WireIn&, WireOut*, const CallContext&)>
::android::status_t dispatchTo(const sp<IBase>& target, uint32_t code, WireIn& in, WireOut* out,
                               const CallContext& context) {
    return Serve(static_cast<I*>(target.get()), code, in, out, context);
}

template <typename Proxy>
sp<IBase> makeProxy(const sp<::android::hardware::host::Connection>& link, uint32_t object) {
    return new Proxy(link, object);
}

const bool kCodecsRegistered = [] {
    ::android::hardware::host::registerCodec({IHdmiUtil::descriptor,
                                              &dispatchTo<IHdmiUtil, dispatchIHdmiUtil>,
                                              &makeProxy<BpSockHdmiUtil>});
    ::android::hardware::host::registerCodec(
            {IHdmiUtilCallback::descriptor,
             &dispatchTo<IHdmiUtilCallback, dispatchIHdmiUtilCallback>,
             &makeProxy<BpSockHdmiUtilCallback>});
    return true;
}();

// How long a waiting lookup sleeps between looks at the socket folder; an
// in-process registration ends the wait at once.
constexpr int kRemoteLookupPollMs = 50;

sp<IHdmiUtil> proxyFor(const std::shared_ptr<ServiceEntry>& entry) {
    if (entry == nullptr) return nullptr;
    sp<::android::hidl::base::V1_0::IBase> base = entry->service();
    if (base == nullptr || !entry->isAlive()) return nullptr;
    return new BpHwHdmiUtil(entry, static_cast<IHdmiUtil*>(base.get()));
}

}  // namespace

// The IBase methods as a local object answers them; a proxy overrides the
// ones that reach the far end.
Return<void> IHdmiUtil::interfaceChain(interfaceChain_cb _hidl_cb) {
    return answerChain(descriptor, _hidl_cb);
}
Return<void> IHdmiUtil::interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) {
    _hidl_cb(descriptor);
    return ::android::hardware::Void();
}
Return<void> IHdmiUtil::ping() {
    return ::android::hardware::Void();
}
Return<bool> IHdmiUtil::linkToDeath(const sp<hidl_death_recipient>& recipient,
                                    uint64_t /*cookie*/) {
    return recipient != nullptr;
}
Return<bool> IHdmiUtil::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

Return<sp<IHdmiUtil>> IHdmiUtil::castFrom(const sp<IHdmiUtil>& parent, bool /*emitError*/) {
    return parent;
}
Return<sp<IHdmiUtil>> IHdmiUtil::castFrom(const sp<IBase>& parent, bool emitError) {
    return castInterface<IHdmiUtil>(parent, emitError);
}

// A service of this process first; else one served by another process.
sp<IHdmiUtil> IHdmiUtil::tryGetService(const std::string& serviceName, bool /*getStub*/) {
    sp<IHdmiUtil> local = proxyFor(::android::hardware::host::findService(descriptor, serviceName));
    if (local != nullptr) return local;
    sp<IBase> remote = ::android::hardware::host::connectService(descriptor, serviceName);
    return static_cast<IHdmiUtil*>(remote.get());
}

sp<IHdmiUtil> IHdmiUtil::getService(const std::string& serviceName, bool getStub) {
    for (;;) {
        sp<IHdmiUtil> service = tryGetService(serviceName, getStub);
        if (service != nullptr) return service;
        ::android::hardware::host::waitForService(descriptor, serviceName, kRemoteLookupPollMs);
    }
}

// New registrations by other processes are announced; those in this process
// are not (tests restart in-process services by hand and acquire on purpose).
bool IHdmiUtil::registerForNotifications(
        const std::string& serviceName,
        const sp<::android::hidl::manager::V1_0::IServiceNotification>& notification) {
    if (notification == nullptr) return false;
    wp<::android::hidl::manager::V1_0::IServiceNotification> weak = notification;
    ::android::hardware::host::watchService(
            descriptor, serviceName, wp<IBase>(notification),
            [weak, serviceName](bool preexisting) {
                sp<::android::hidl::manager::V1_0::IServiceNotification> n = weak.promote();
                if (n == nullptr) return;
                auto done = n->onRegistration(descriptor, serviceName, preexisting);
                if (!done.isOk()) ALOGW("registration notice: %s", done.description().c_str());
            });
    return true;
}

::android::status_t IHdmiUtil::registerAsService(const std::string& serviceName) {
    return ::android::hardware::host::registerService(descriptor, serviceName, this);
}

// Callbacks travel as local objects in this process: no proxy, no registration.
Return<void> IHdmiUtilCallback::interfaceChain(interfaceChain_cb _hidl_cb) {
    return answerChain(descriptor, _hidl_cb);
}
Return<void> IHdmiUtilCallback::interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) {
    _hidl_cb(descriptor);
    return ::android::hardware::Void();
}
Return<void> IHdmiUtilCallback::ping() {
    return ::android::hardware::Void();
}
Return<bool> IHdmiUtilCallback::linkToDeath(const sp<hidl_death_recipient>& recipient,
                                            uint64_t /*cookie*/) {
    return recipient != nullptr;
}
Return<bool> IHdmiUtilCallback::unlinkToDeath(const sp<hidl_death_recipient>& recipient) {
    return recipient != nullptr;
}

Return<sp<IHdmiUtilCallback>> IHdmiUtilCallback::castFrom(const sp<IHdmiUtilCallback>& parent,
                                                          bool /*emitError*/) {
    return parent;
}
Return<sp<IHdmiUtilCallback>> IHdmiUtilCallback::castFrom(const sp<IBase>& parent, bool emitError) {
    return castInterface<IHdmiUtilCallback>(parent, emitError);
}

}  // namespace V1_0
}  // namespace provider
}  // namespace hdmiutil
}  // namespace mirova
}  // namespace vendor
