// The exported C functions. Each one marshals: it checks initialisation,
// finds the apartment (holding a reference for the call), forwards to one
// apartment or node operation and maps the result. No behaviour lives here.
#include "ApartmentApi.h"

#include <atomic>
#include <cstring>
#include <string>

#include "ApartmentHelper.h"
#include "ApartmentManager.h"
#include "ApartmentTimerManager.h"
#include "ApartmentVersion.h"
#include "FieldKit/BoundedStream/AbstractStream.h"
#include "GroundKit/Reference/Reference.h"
#include "os_log.h"

namespace {

std::atomic<bool> is_library_initialized(false);
// Written only by apartment_initialize/uninitialize, which the host does not
// run concurrently with other calls.
std::string initialized_apartment_url;

const unsigned int NO_TIMER = 0xFFFFFFFFu;

// The apartment named by the URL, or the initialised one for null.
CReference<IApartment> lookup(const char* strApartmentUrl) {
    CApartmentManager* manager = CApartmentManager::getUniqueApartmentManager();
    if (manager == nullptr) return CReference<IApartment>();
    return CReference<IApartment>(manager->findApartment(
        strApartmentUrl != nullptr ? strApartmentUrl : initialized_apartment_url.c_str()));
}

// The node messaging functions reach the initialised apartment for null or
// any URL containing "tcp://", and nothing otherwise.
CReference<IApartment> lookupForMessaging(const char* strApartmentUrl) {
    if (strApartmentUrl != nullptr && std::strstr(strApartmentUrl, "tcp://") == nullptr)
        return CReference<IApartment>();
    return lookup(nullptr);
}

int statusOf(bool bSucceeded) { return bSucceeded ? 0 : APARTMENT_METHOD_FAILED; }

// Runs a frame writer. A node name or remote URL that is not pure ASCII
// makes the payload stream throw; no exception leaves the C interface, so
// it becomes a failed call.
template <class Write>
int writeStatus(Write write) {
    try {
        return statusOf(write());
    } catch (CAbstractStream::CStreamException* e) {
        delete e;
        return APARTMENT_METHOD_FAILED;
    }
}

}  // namespace

APARTMENT_API bool apartment_initialize(const char* strApartmentUrl,
                                        bool supportPassiveConnection) {
    if (is_library_initialized) return false;
    install_log_task();
    CApartmentManager::createUniqueApartmentManager();
    CApartmentTimerManager::createUniqueApartmentTimerManager();
    CReference<IApartment> apartment(
        CApartmentManager::getUniqueApartmentManager()->createApartment(strApartmentUrl,
                                                                        supportPassiveConnection));
    if (apartment.nil()) return false;
    is_library_initialized = true;
    CApartmentHelper::getApartmentUrl(apartment, initialized_apartment_url);
    return true;
}

APARTMENT_API void apartment_uninitialize() {
    if (is_library_initialized) {
        CApartmentTimerManager::destroyUniqueApartmentTimerManager();
        CApartmentManager* manager = CApartmentManager::getUniqueApartmentManager();
        if (manager != nullptr) manager->removeAllApartments();
        CApartmentManager::destroyUniqueApartmentManager();
        is_library_initialized = false;
        initialized_apartment_url.clear();
    }
    uninstall_log_task();
}

APARTMENT_API IModuleVersion* apartment_get_module_version() { return new CApartmentVersion(); }

APARTMENT_API bool apartment_set_callback(const char* strApartmentUrl,
                                          IApartmentCallback* pCallback) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return false;
    apartment->setCallback(pCallback);
    return true;
}

APARTMENT_API bool apartment_set_dispatch_enabled(const char* strApartmentUrl, bool bEnable) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return false;
    return bEnable ? apartment->lockDispatchThread() : apartment->unlockDispatchThread();
}

APARTMENT_API int apartment_dispatch_message(const char* strApartmentUrl, timespec timeout) {
    if (!is_library_initialized) return -1;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return -1;
    APARTMENT_TMSG msg;
    if (!apartment->getMessage(msg, timeout)) return -1;
    return apartment->dispatchMessage(msg);
}

APARTMENT_API bool apartment_stop_dispatch_message(const char* strApartmentUrl) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() && apartment->stopDispatchMessage();
}

APARTMENT_API bool apartment_allow_reentry(const char* strApartmentUrl, bool bAllow) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() && apartment->allowReentry(bAllow);
}

APARTMENT_API bool apartment_local_url(const char* strApartmentUrl,
                                       const char* strRemoteApartmentUrl,
                                       const bool bRtConnection, char* strLocalApartmentUrl,
                                       const DWORD& dwLen) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() &&
           apartment->localApartmentUrl(strRemoteApartmentUrl, bRtConnection,
                                        strLocalApartmentUrl, const_cast<DWORD&>(dwLen));
}

APARTMENT_API bool apartment_connect_remote(const char* strApartmentUrl,
                                            const char* strRemoteApartmentUrl,
                                            const bool bRtConnection) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() && apartment->connectApartment(strRemoteApartmentUrl, bRtConnection);
}

APARTMENT_API bool apartment_has_connect_remote(const char* strApartmentUrl,
                                                const char* strRemoteApartmentUrl,
                                                const bool bRtConnection) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() && apartment->hasConnection(strRemoteApartmentUrl, bRtConnection);
}

APARTMENT_API bool apartment_disconnect_remote(const char* strApartmentUrl,
                                               const char* strRemoteApartmentUrl,
                                               const bool bRtConnection) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() &&
           apartment->disconnectApartment(strRemoteApartmentUrl, bRtConnection);
}

APARTMENT_API bool apartment_node_create(const char* strApartmentUrl, const char* strNodeUrl) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return false;
    apartment->createApartmentNode(strNodeUrl);
    return true;
}

APARTMENT_API bool apartment_node_destroy(const char* strApartmentUrl, const char* strNodeUrl) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return false;
    apartment->destroyApartmentNode(strNodeUrl);
    return true;
}

APARTMENT_API bool apartment_node_set_callback(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               IApartmentNodeCallback* pCallback) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return false;
    CReference<IApartmentNode> node(apartment->findApartmentNode(strNodeUrl));
    return !node.nil() && node->setCallback(pCallback);
}

APARTMENT_API int apartment_raw_write(const char* strApartmentUrl,
                                      const char* strRemoteApartmentUrl,
                                      const unsigned int uintFrameType, void* pRawBuffer,
                                      const unsigned int& uintBufLen) {
    if (!is_library_initialized) return APARTMENT_NOT_INITIALIZED;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return CAN_NOT_FIND_APARTMENT;
    return statusOf(
        apartment->writeRawFrame(strRemoteApartmentUrl, uintFrameType, pRawBuffer, uintBufLen, true));
}

namespace {
int writeRequest(const char* strApartmentUrl, const char* strNodeUrl,
                 const char* strRemoteApartmentUrl, const char* strRemoteNodeUrl,
                 void* pRequestBuffer, unsigned int uintBufLen, unsigned int& uintRequestId,
                 bool bRequireResponse) {
    if (!is_library_initialized) return APARTMENT_NOT_INITIALIZED;
    CReference<IApartment> apartment = lookupForMessaging(strApartmentUrl);
    if (apartment.nil()) return CAN_NOT_FIND_APARTMENT;
    return writeStatus([&] {
        return apartment->writeRequestFrame(strNodeUrl, strRemoteApartmentUrl, strRemoteNodeUrl,
                                            pRequestBuffer, uintBufLen, false, uintRequestId,
                                            bRequireResponse);
    });
}
}  // namespace

APARTMENT_API int apartment_node_write_request(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               const char* strRemoteApartmentUrl,
                                               const char* strRemoteNodeUrl,
                                               void* pRequestBuffer, unsigned int uintBufLen,
                                               const unsigned int& uintRequestId) {
    return writeRequest(strApartmentUrl, strNodeUrl, strRemoteApartmentUrl, strRemoteNodeUrl,
                        pRequestBuffer, uintBufLen, const_cast<unsigned int&>(uintRequestId),
                        true);
}

APARTMENT_API int apartment_node_write_notify(const char* strApartmentUrl,
                                              const char* strNodeUrl,
                                              const char* strRemoteApartmentUrl,
                                              const char* strRemoteNodeUrl,
                                              void* pRequestBuffer, unsigned int uintBufLen,
                                              const unsigned int& uintRequestId) {
    return writeRequest(strApartmentUrl, strNodeUrl, strRemoteApartmentUrl, strRemoteNodeUrl,
                        pRequestBuffer, uintBufLen, const_cast<unsigned int&>(uintRequestId),
                        false);
}

APARTMENT_API int apartment_node_write_response(const char* strApartmentUrl,
                                                const char* strNodeUrl,
                                                const char* strRemoteApartmentUrl,
                                                const char* strRemoteNodeUrl,
                                                unsigned int uintRequestId, int intResponseCode,
                                                void* pRequestBuffer, unsigned int uintBufLen) {
    if (!is_library_initialized) return APARTMENT_NOT_INITIALIZED;
    CReference<IApartment> apartment = lookupForMessaging(strApartmentUrl);
    if (apartment.nil()) return CAN_NOT_FIND_APARTMENT;
    return writeStatus([&] {
        return apartment->writeResponseFrame(strNodeUrl, strRemoteApartmentUrl, strRemoteNodeUrl,
                                             uintRequestId, intResponseCode, pRequestBuffer,
                                             uintBufLen, false);
    });
}

APARTMENT_API int apartment_node_read_response(const char* strApartmentUrl,
                                               const char* strNodeUrl,
                                               unsigned int uintRequestId,
                                               const int& intResponseCode, void* pResponseBuffer,
                                               const unsigned int& uintBufLen, int intTimeout) {
    if (!is_library_initialized) return APARTMENT_NOT_INITIALIZED;
    CReference<IApartment> apartment = lookupForMessaging(strApartmentUrl);
    if (apartment.nil()) return CAN_NOT_FIND_APARTMENT;
    CReference<IApartmentNode> node(apartment->findApartmentNode(strNodeUrl));
    if (node.nil()) return CAN_NOT_FIND_APARTMENT_NODE;
    if (!node->getResponse(uintRequestId, const_cast<int&>(intResponseCode), pResponseBuffer,
                           const_cast<unsigned int&>(uintBufLen), intTimeout))
        return APARTMENT_METHOD_FAILED;
    if (pResponseBuffer != nullptr) node->removeResponse(uintRequestId);
    return 0;
}

APARTMENT_API unsigned int apartment_set_timer(const char* strApartmentUrl,
                                               const char* strNodeUrl, unsigned int uintLagTime,
                                               unsigned int uintInterval) {
    if (!is_library_initialized) return NO_TIMER;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return NO_TIMER;
    return apartment->setTimer(strNodeUrl, uintLagTime, uintInterval);
}

APARTMENT_API unsigned int apartment_set_single_timer(const char* strApartmentUrl,
                                                      const char* strNodeUrl,
                                                      unsigned int uintLagTime) {
    if (!is_library_initialized) return NO_TIMER;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    if (apartment.nil()) return NO_TIMER;
    return apartment->setSingleTimer(strNodeUrl, uintLagTime);
}

APARTMENT_API bool apartment_kill_timer(const char* strApartmentUrl, const char* strNodeUrl,
                                        unsigned int uintTimerId) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() && apartment->killTimer(strNodeUrl, uintTimerId);
}

APARTMENT_API bool apartment_keepalive_with(const char* strApartmentUrl,
                                            const char* strRemoteApartmentUrl,
                                            unsigned int uintAliveCounter,
                                            unsigned int uintAliveInterval) {
    if (!is_library_initialized) return false;
    CReference<IApartment> apartment = lookup(strApartmentUrl);
    return !apartment.nil() &&
           apartment->keepAliveWith(strRemoteApartmentUrl, uintAliveCounter, uintAliveInterval);
}
