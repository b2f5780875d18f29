/* SPDX-License-Identifier: Apache-2.0
 *
 * The contract between the bus master and the buses: plain C functions over opaque entries.
 *
 * Everything above this header knows cameras, everything below it knows drivers, and nothing else crosses. A HAL can be
 * written from this header alone; examples/null_hal.c is the smallest one.
 *
 * Rules for every function
 *   Result      HAL_OK (0) or one of HALStatus. errno, GVCP and IEEE 1394 codes are mapped to these, never passed on.
 *   Entries     name a physical device, not a connection: the device is found anew at each call. A stale entry answers
 *               with a status and never with another device's data. Two entries of one device may live at once; each is
 *               given back exactly once, with the free function of its kind. An entry value is never used twice.
 *   Threads     Every function may be called from any thread at any time between HAL_InitLibrary and
 *               HAL_CleanupLibrary. Calls on different entries run in parallel; calls on one entry are safe too.
 *   Locks       The HAL holds none of its own locks while it calls back. Unless said otherwise the bus master may hold
 *               any of its locks while it calls.
 *   After       HAL_CleanupLibrary (and before HAL_InitLibrary) every function answers HAL_CLOSED and touches nothing.
 *   Forks       In a process that was forked after HAL_InitLibrary every function answers HAL_CLOSED and takes no
 *               lock, and HAL_CleanupLibrary cleans up nothing: threads and devices are those of the first process.
 *   Memory      Buffers belong to the caller and are only used during the call.
 *   Pointers    Out-parameters must not be null unless said; counts come in as a capacity and go out as a number. What
 *               an out-parameter holds after a failure is meaningless unless said.
 */
#ifndef NIMBREL2_HAL_HAL_H
#define NIMBREL2_HAL_HAL_H

#include <stdint.h>

#include "hal/Export.h"

#ifdef __cplusplus
/* The underlying type is fixed so that a value nobody has named may cross the line without undefined behaviour. */
#define HAL_ENUM(name) enum name : uint32_t
extern "C" {
#else
#define HAL_ENUM(name)     \
    typedef uint32_t name; \
    enum name##Values
#endif

/* ---- Statuses ------------------------------------------------------------------------------------------------- */

/* 5, 11, 20 and 23 have a meaning of their own above this line and are used for nothing else. For applications written
 * in C++ common/HalStatus.h has a text for each. */
HAL_ENUM(HALStatus){
    HAL_OK = 0,
    HAL_FAILED = 1,                    /* any other failure */
    HAL_INVALID_ARGUMENT = 2,          /* a null pointer, a misaligned address, a value outside its range */
    HAL_PERMISSION = 3,                /* the operating system does not let this user do it */
    HAL_GONE = 4,                      /* the device of this entry is not attached now, or the entry is unknown */
    HAL_PHY_WRITE_NOT_IMPLEMENTED = 5, /* this computer has no way to write a PHY register */
    HAL_BUSY = 6,                      /* the device or the bus asks to try again later */
    HAL_TIMED_OUT = 7,                 /* no answer within the time-out of the operation */
    HAL_NO_BUS = 8,                    /* this computer has no such bus */
    HAL_CLOSED = 9,                    /* outside HAL_InitLibrary ... HAL_CleanupLibrary */
    HAL_OUT_OF_MEMORY = 10,            /* memory, threads, file descriptors or source ports */
    HAL_NO_ACKNOWLEDGE = 11,           /* a ForceIP request that nobody acknowledged */
    HAL_NOT_SUPPORTED = 12,            /* this kind of device has no such operation */
    HAL_BAD_ANSWER = 13,               /* the device answered, with something malformed */
    HAL_BUS_CHANGED = 14,              /* the bus changed between a size query and its fill */
    HAL_NO_SUCH_REGISTER = 15,         /* the device has no register at that address */
    HAL_WRITE_PROTECTED = 16,          /* the register may not be written */
    HAL_ACCESS_DENIED = 17,            /* another application holds the device */
    HAL_REFUSED = 18,                  /* any other error that the device answered */
    HAL_NO_TREE = 20,                  /* a USB camera that has no tree to show */
    HAL_UNREACHABLE = 21,              /* no route, or the network interface is down */
    HAL_ARRAY_TOO_SMALL = 23,          /* HAL_GvcpDiscovery: more cameras than records */
    HAL_BAD_MASK = 24,                 /* HAL_GvcpForceIp: no subnet mask, or one without room for two hosts */
    HAL_BAD_ADDRESS = 25,              /* HAL_GvcpForceIp: not an address that one host can have */
    HAL_BAD_GATEWAY = 26,              /* HAL_GvcpForceIp: the gateway is the camera itself or outside its subnet */
    HAL_AMBIGUOUS = 27                 /* HAL_GvcpAutoForceIpToCamera: several cameras have that serial number */
};

/* ---- Bus events ----------------------------------------------------------------------------------------------- */

HAL_ENUM(HALBusEvent){HAL_BUS_RESET = 0, HAL_BUS_ARRIVAL = 1, HAL_BUS_REMOVAL = 2, HAL_BUS_ERROR = 3};

/* The bus an event comes from. Numbered differently from InterfaceType, which has two USB kinds. */
HAL_ENUM(HALInterfaceType){HAL_INTERFACE_1394 = 0, HAL_INTERFACE_USB = 1, HAL_INTERFACE_GIGE = 2};

/*
 * first, second, third: the device words. All 0, except for a FireWire node that is a device and no camera: first is
 * the high half of its EUI-64, second the low half; third is not used.
 *
 * Called on the delivery thread of the registration, one event at a time, at any time between registration and
 * deregistration, with no lock of the HAL held, so the callee may call every HAL function and may block: no listing,
 * transaction, acknowledge or monitor round waits for it. Bus resets that wait to be delivered are one, and go first.
 */
typedef void (*HALBusEventFunction)(HALBusEvent event, void* context, HALInterfaceType interfaceType,
                                    unsigned int first, unsigned int second, unsigned int third);

/* ---- Records that cross the line ------------------------------------------------------------------------------- */

/* One self-ID quadlet (IEEE 1394-1995 4.3.4.1, IEEE 1394a-2000), most significant byte first. */
typedef struct SelfIdPacket_t {
    uint8_t bytes[4];
} SelfIdPacket_t;

/* One device below a USB host controller. 32 bytes; the tree uses deviceId, rootPortId and routeString. */
typedef struct UsbSelfId {
    uint32_t deviceId;    /* unique below its host controller, never 63 */
    uint32_t speed;       /* Mbit/s, 0 when unknown */
    uint64_t rootPortId;  /* equal for all devices below one root port */
    uint64_t routeString; /* USB 3.2 10.1.3.2: four bits a hub tier, the tier next to the root port in bits 3..0 */
    uint64_t parentId;    /* deviceId of the hub above, 63 on a root port */
} UsbSelfId;

/*
 * One discovery answer: the fields of the GigE Vision DISCOVERY_ACK without its reserved ones, in host byte order, 212
 * bytes. Addresses have their first octet in the most significant byte. Texts end at their first zero byte or fill
 * their field.
 */
typedef struct GvcpDiscoveryRecord {
    uint16_t versionMajor;
    uint16_t versionMinor;
    uint32_t deviceMode;
    uint16_t macHigh; /* octet 0 in bits 15..8, octet 1 in bits 7..0 */
    uint16_t padding;
    uint32_t macLow; /* octets 2 to 5, octet 2 in bits 31..24 */
    uint32_t ipConfigOptions;
    uint32_t ipConfigCurrent;
    uint32_t ipAddress;
    uint32_t subnetMask;
    uint32_t defaultGateway;
    char manufacturerName[32];
    char modelName[32];
    char deviceVersion[32];
    char manufacturerInfo[48];
    char serialNumber[16]; /* decimal text */
    char userDefinedName[16];
} GvcpDiscoveryRecord;

/* ---- Library -------------------------------------------------------------------------------------------------- */

/*
 * Starts the HAL: its monitors listen from here on, before the first listing.
 * Caller: the BusMaster constructor, once; no lock held. Blocks for as long as sockets and threads take to make; does
 * no bus I/O. May be called again after HAL_CleanupLibrary; called twice in a row the second call answers HAL_BUSY.
 * Answers HAL_OK also when buses are missing or may not be used: those list nothing and register successfully.
 * HAL_OUT_OF_MEMORY: nothing was started and every other function answers HAL_CLOSED.
 */
NIMBREL2_API uint32_t HAL_InitLibrary(void);

/*
 * Ends every thread and frees everything, entries that were never given back included. Event callbacks in flight are
 * waited for, at most one second.
 * Caller: ~BusMaster, last; no lock held. Not from inside an event callback. HAL_CLOSED when nothing was started.
 */
NIMBREL2_API uint32_t HAL_CleanupLibrary(void);

/* ---- Listings ------------------------------------------------------------------------------------------------- */
/*
 * Common to the listings: entries is an array of *count pointers. On HAL_OK the first *count hold new entries that the
 * caller owns (an interface object takes them over, or the free function takes them back); on any other status nothing
 * was handed out. Listings are sorted (FireWire: card, EUI-64; USB: controller, port path; GigE: MAC, IP) and cut at
 * the capacity. They open nothing: a camera that this user may not open is listed all the same. A bus this computer
 * lacks lists nothing and answers HAL_OK. A change that a listing finds first is raised to every registration, whoever
 * lists. They may block for bus I/O, at most three seconds; the first one of GigE for the discovery window and two.
 * HAL_INVALID_ARGUMENT: a null pointer. HAL_PERMISSION, HAL_OUT_OF_MEMORY, HAL_FAILED: the bus could not be read.
 */

/* Cameras on all IEEE 1394 buses. Caller: the 1394 enumeration thread; the main lock is held. Capacity 256. */
NIMBREL2_API uint32_t HAL_1394GetCameras(void** entries, uint64_t* count);

/*
 * Virtual IEEE 1394 cameras. serialNumbers holds the serial numbers of the real ones already found, *count their
 * number; no virtual camera has one of these. entries has room for 256. *count comes back as the number of entries, 0
 * when the HAL has no virtual cameras. Caller: the thread that enumerates, after the three bus threads have ended.
 */
NIMBREL2_API uint32_t HAL_1394GetVirtualCameras(void** entries, const uint64_t* serialNumbers, uint64_t* count);

/* IEEE 1394 nodes that are no cameras. Caller: the worker thread; the main lock is held, or Initialize waits. 256. */
NIMBREL2_API uint32_t HAL_1394GetDevices(void** entries, uint64_t* count);

/* Cameras on all USB host controllers. Caller: the USB enumeration thread; the main lock is held. Capacity 128. */
NIMBREL2_API uint32_t HAL_UsbGetCameras(void** entries, uint64_t* count);

/*
 * Reachable GigE Vision cameras. The first call waits for the discovery window; later ones verify the known cameras,
 * all at once, and add what the monitor has heard. A camera is left out after it missed two rounds of 300 ms.
 * Caller: the GigE enumeration thread; the main lock is held. Capacity 128.
 */
NIMBREL2_API uint32_t HAL_GigEGetCameras(void** entries, uint64_t* count);

/*
 * Give an entry back. Never block for bus I/O. HAL_INVALID_ARGUMENT for null, HAL_GONE for an entry that was given back
 * before. Callers, and the locks of the bus master that are held meanwhile:
 *   during a listing   The enumeration thread, or the worker for devices, when the listing fails: the main lock, which
 *                      a start has from Initialize, and no longer once that has given up.
 *   during a cycle     The worker, for cameras listed anew: main and initialised lock; for cameras that left: main
 *                      lock; for devices of the cycle before: main and initialised lock.
 *   at the end         One thread for each camera, all at once, then the destructor's thread for the devices, one after
 *                      the other: the main lock, held by the destructor. The same in a start that follows a failed one.
 *                      The worker, for cameras that left in a cycle that the end cut short: none.
 *   an operation       Whoever ends the last operation on an entry that was released meanwhile: what it holds.
 *   left behind        A thread that the destructor could not wait for: none. It gets HAL_CLOSED after the clean-up.
 */
NIMBREL2_API uint32_t HAL_1394FreeCamera(void* entry);
NIMBREL2_API uint32_t HAL_1394FreeDevice(void* entry);
NIMBREL2_API uint32_t HAL_UsbFreeCamera(void* entry);
NIMBREL2_API uint32_t HAL_GigEFreeCamera(void* entry);

/*
 * The camera's current IP address, first octet in the most significant byte, as the listing saw it. No network I/O.
 * Caller: the GigE enumeration thread, for cameras in monitor mode. HAL_GONE: unknown entry.
 */
NIMBREL2_API uint32_t HAL_GigEGetCameraIpAddress(void* entry, uint32_t* ipAddress);

/* ---- Bus event registration ----------------------------------------------------------------------------------- */
/*
 * Register: *registration receives a new registration with a delivery thread of its own; null after a failure. What was
 * listed before is known to it; what changed since is queued at once: one HAL_BUS_RESET, then what left and what came.
 * From then on each change is raised once. A bus that this computer lacks registers successfully and raises nothing.
 * Caller: the worker thread at start-up; Initialize holds the main lock. Never blocks.
 * HAL_INVALID_ARGUMENT: null registration or function. HAL_OUT_OF_MEMORY: no thread or memory.
 *
 * Deregister: starts no new callback and does not wait for one in flight, so it may be called with a lock that the
 * callback wants. Caller: the worker thread at its end, with the initialised lock held, or after a failed start with
 * none. HAL_INVALID_ARGUMENT: null. HAL_GONE: unknown.
 */
NIMBREL2_API uint32_t HAL_1394RegisterBusEvents(void** registration, HALBusEventFunction function, void* context);
NIMBREL2_API uint32_t HAL_UsbRegisterBusEvents(void** registration, HALBusEventFunction function, void* context);
NIMBREL2_API uint32_t HAL_GigERegisterBusEvents(void** registration, HALBusEventFunction function, void* context);
NIMBREL2_API uint32_t HAL_1394DeregisterBusEvents(void* registration);
NIMBREL2_API uint32_t HAL_UsbDeregisterBusEvents(void* registration);
NIMBREL2_API uint32_t HAL_GigEDeregisterBusEvents(void* registration);

/* ---- GVCP services -------------------------------------------------------------------------------------------- */
/*
 * Callers: any user thread, no lock held. They block for network I/O. HAL_NO_BUS: no network interface is in use.
 * HAL_PERMISSION, HAL_UNREACHABLE: no request could be sent.
 */

/*
 * Broadcasts a DISCOVERY_CMD (GigE Vision, GVCP) on every network interface in use and collects the answers for the
 * discovery window, cameras on foreign subnets included. records has room for *count. HAL_OK: *count records were
 * filled. HAL_ARRAY_TOO_SMALL: *count is the number of cameras that answered and records is untouched.
 */
NIMBREL2_API uint32_t HAL_GvcpDiscovery(GvcpDiscoveryRecord* records, uint32_t* count);

/*
 * Forces an IP configuration onto the camera with that MAC address (FORCEIP_CMD), by broadcast on the interface that
 * heard the camera, on every interface when none has. macHigh holds octets 0 and 1, macLow octets 2 to 5; addresses
 * have their first octet in the most significant byte, and gateway 0 is none. At most 3 x 300 ms until the acknowledge,
 * and up to 2 s more until the camera answers at its new address. HAL_OK: it has acknowledged, from there.
 * HAL_NO_ACKNOWLEDGE: nobody did; the camera is not there, or an application holds it.
 * Nothing is sent for HAL_BAD_MASK (no ones followed by zeros, or /0, /31, /32), HAL_BAD_ADDRESS (0.x, loopback, a
 * group, the first or the last address of the subnet) and HAL_BAD_GATEWAY (the address itself, the first or the last
 * address of the subnet, or outside of it), looked at in this order. Whether a host has the address already is not
 * asked: who gives it is asked to know.
 * ipAddress 0 makes the camera begin its own configuration anew: its persistent address, DHCP, a link-local one. The
 * mask and the gateway then mean nothing. Cameras do not acknowledge it, so HAL_OK says that it was sent, no more.
 */
NIMBREL2_API uint32_t HAL_GvcpForceIp(uint32_t macHigh, uint32_t macLow, uint32_t ipAddress, uint32_t subnetMask,
                                      uint32_t gateway);

/*
 * Gives every camera that its address keeps from being used (a wrong subnet, a mask that leaves this computer out, an
 * address that somebody else has, none at all) a free address of the subnet of the interface that heard it. Cameras
 * already right are left alone. A failure does not stop the others; the first is returned.
 */
NIMBREL2_API uint32_t HAL_GvcpForceIpAuto(void);

/*
 * The same for the camera with that serial number. HAL_GONE: none answers to it. HAL_AMBIGUOUS: more than one does, and
 * none was touched. HAL_NO_ACKNOWLEDGE as above.
 */
NIMBREL2_API uint32_t HAL_GvcpAutoForceIpToCamera(uint32_t serialNumber);

/* ---- One IEEE 1394 camera or device --------------------------------------------------------------------------- */
/*
 * Common to the functions on one entry, of every bus. Callers: the interface objects, on the enumeration threads (main
 * lock held), the worker (main lock held), the HAL's own delivery threads (a bus error) and user threads (no lock).
 * HAL_GONE: the device left, or the entry was given back. HAL_PERMISSION: this user may not open the device.
 * HAL_TIMED_OUT, HAL_BUSY, HAL_BAD_ANSWER, HAL_REFUSED: as named.
 */

/*
 * Identification. No bus I/O. vendor and model are zero-terminated; the sizes come in as the capacities and go out as
 * the lengths without the zero; longer texts are cut. first is the high quadlet of the EUI-64, serialNumber the low
 * one (IEEE 1394 configuration ROM, quadlets 3 and 4); nodeAddress is the 16-bit node id (0xFFC0 | phy id), card the
 * controller, unitVersion the unit's software version. A virtual camera answers 0 for what it has not. nodeAddress is
 * 0xFFFF when this user may not open the node; both are 0xFFFF of one that has left since it was listed, which is still
 * identified, for a camera that is not makes the bus master drop its whole bus.
 */
NIMBREL2_API uint32_t HAL_1394GetConfigInfo(void* entry, uint32_t* first, uint32_t* nodeAddress, uint32_t* serialNumber,
                                            uint32_t* card, uint32_t* unitVersion, char* vendor, char* model,
                                            uint32_t* vendorSize, uint32_t* modelSize);

/*
 * What a device's identifier is made of: info1 the low half of the EUI-64, info2 the high half, info3 0xFFFFFFFF minus
 * the entry's position in its listing. The position keeps the identifier apart from the place in the list, so that a
 * device keeps it when a neighbour leaves and an event that carries both halves finds it. No bus I/O.
 */
NIMBREL2_API uint32_t HAL_1394GetDeviceInfo(void* entry, uint32_t* info1, uint32_t* info2, uint32_t* info3);

/*
 * Phy id (0..62) and bus number (the card) as the last reading of the bus had them; 0xFFFF for what this user may not
 * find out. No bus I/O.
 */
NIMBREL2_API uint32_t HAL_1394GetNode(void* entry, uint16_t* node, uint16_t* busNumber);

/*
 * One quadlet transaction. address: the 48-bit offset, or its low 32 bits, to which 0xFFFF00000000 is added (so
 * 0xF0000410 is configuration ROM quadlet 4). selector is 0xFFFFFFFF: the device of the entry. flags is 0. Values are
 * in host order. May block for 3 s. HAL_NO_SUCH_REGISTER: the device answered an address error.
 */
NIMBREL2_API uint32_t HAL_1394ReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value);
NIMBREL2_API uint32_t HAL_1394WriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value,
                                            uint32_t flags);

/*
 * One PHY register (IEEE 1394a-2000 5B.1). address 0..7 is a base register (page and port must be 0); 8..15 is a
 * register of that page (0..7) and port (0..15). May block for a second. HAL_PHY_WRITE_NOT_IMPLEMENTED: writing cannot
 * be done on this computer at all.
 */
NIMBREL2_API uint32_t HAL_1394ReadPhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address,
                                              uint32_t* value);
NIMBREL2_API uint32_t HAL_1394WritePhyRegister(void* entry, uint32_t page, uint32_t port, uint32_t address,
                                               uint32_t value);

/* Asks for a (short) bus reset on the device's bus and returns without waiting for it. */
NIMBREL2_API uint32_t HAL_1394FireBusReset(void* entry);

/*
 * The self-ID stream of the device's bus: packet zero and extended packets of each PHY in ascending phy id. *count
 * comes in as the capacity; a bus has at most 252 quadlets. *generation changes with every bus reset; *busKey tells
 * buses apart. One bus read a generation, whoever asks; may block for 3 s while the bus is being reset. HAL_PERMISSION
 * also when it is the controller's file, or the node's own, that this user may not open. HAL_ARRAY_TOO_SMALL is not
 * used: a smaller capacity answers HAL_INVALID_ARGUMENT with *count set to the need.
 */
NIMBREL2_API uint32_t HAL_1394GetSelfIds(void* entry, SelfIdPacket_t* packets, uint64_t* count, uint64_t* busKey,
                                         uint32_t* generation);

/* Serial numbers by phy id: serialNumbers[phy id], for *count slots that the caller set to 0. Unknown ones stay 0. */
NIMBREL2_API uint32_t HAL_1394GetNodeSerialNumbers(void* entry, uint32_t* serialNumbers, uint64_t count);

/* ---- One USB camera ------------------------------------------------------------------------------------------- */

/*
 * As HAL_1394GetConfigInfo; vidPid is VID << 16 | PID, busAndAddress busnum << 8 | devnum, speed in Mbit/s, version
 * bcdUSB. The serial number is the 32-bit form of the serial text.
 */
NIMBREL2_API uint32_t HAL_UsbGetConfigInfo(void* entry, uint32_t* vidPid, uint32_t* busAndAddress,
                                           uint32_t* serialNumber, uint32_t* speed, uint32_t* version, char* vendor,
                                           char* model, uint32_t* vendorSize, uint32_t* modelSize);

/* The serial number as the device tells it (iSerialNumber). Size as for the texts above. No bus I/O. */
NIMBREL2_API uint32_t HAL_UsbGetSerialText(void* entry, char* text, uint32_t* size);

/* The speed of the link now, in Mbit/s; the last one known when the device is gone. 5000 and above is SuperSpeed. */
NIMBREL2_API uint32_t HAL_UsbGetSpeed(void* entry, uint32_t* speed);

/*
 * One register of the camera, as for IEEE 1394; HAL_NOT_SUPPORTED for a camera without a register protocol. Its
 * interface is claimed meanwhile and given back: HAL_ACCESS_DENIED at once while another program has it. May block for
 * 3 x 200 ms, 1 s when the camera asks for time, and 1 s more while a new camera's node is still being given to users.
 */
NIMBREL2_API uint32_t HAL_UsbReadRegister(void* entry, uint64_t address, uint32_t selector, uint32_t* value);
NIMBREL2_API uint32_t HAL_UsbWriteRegister(void* entry, uint64_t address, uint32_t selector, uint32_t value,
                                           uint32_t flags);

/*
 * Resets the device's port and has the bus enumerated again. Blocks until the kernel has done so. HAL_BUSY: another
 * program has claimed one of its interfaces, and nothing was reset.
 */
NIMBREL2_API uint32_t HAL_UsbFireBusReset(void* entry);

/*
 * link: bits 31..16 the speed in units of 10 Mbit/s, bits 15..8 the port number on its hub, bits 7..0 the number of
 * hubs above. status: wPortStatus in the low half, wPortChange in the high half (USB 3.2 10.16.2.6, USB 2.0 11.24.2.7);
 * of a hub that this user may not open, what the kernel knows of a port with a working device. The link takes no bus
 * I/O, the status may block for 200 ms.
 */
NIMBREL2_API uint32_t HAL_UsbGetLinkInfo(void* entry, uint32_t* link);
NIMBREL2_API uint32_t HAL_UsbGetPortStatus(void* entry, uint32_t* status);

/*
 * The devices below the camera's host controller. *count comes in as the capacity (a controller has at most 1024
 * records), *deviceId is the camera's own id, *hostKey tells controllers apart, *generation changes with every change
 * below the controller. HAL_NO_TREE: the camera has no tree to show. A smaller capacity answers HAL_INVALID_ARGUMENT
 * with *count set to the need.
 */
NIMBREL2_API uint32_t HAL_UsbGetSelfIds(void* entry, UsbSelfId* records, uint64_t* count, uint32_t* deviceId,
                                        uint64_t* hostKey, uint32_t* generation);

/* ---- One GigE camera ------------------------------------------------------------------------------------------ */

/*
 * As HAL_1394GetConfigInfo, from the last discovery answer, without network I/O: version is the GigE Vision version
 * (major << 16 | minor), serialNumber the decimal number at the start of the serial text.
 */
NIMBREL2_API uint32_t HAL_GigEGetConfigInfo(void* entry, uint32_t* macHigh, uint32_t* macLow, uint32_t* serialNumber,
                                            uint32_t* version, uint32_t* deviceMode, char* vendor, char* model,
                                            uint32_t* vendorSize, uint32_t* modelSize);

/* The last discovery answer of the camera. No network I/O. */
NIMBREL2_API uint32_t HAL_GigEGetDiscoveryRecord(void* entry, GvcpDiscoveryRecord* record);

/*
 * One bootstrap or manufacturer register by READREG / WRITEREG (GigE Vision, GVCP). address is a multiple of 4.
 * 200 ms, three tries with one request id; a PENDING_ACK is honoured up to 1 s. A read of the current IP address
 * (0x0024) that is refused or unanswered while the camera counts as present is answered from the camera table.
 * A camera that just timed out is not asked again for 1 s: HAL_TIMED_OUT at once.
 * HAL_ACCESS_DENIED: another application holds exclusive access. HAL_NO_SUCH_REGISTER, HAL_WRITE_PROTECTED.
 */
NIMBREL2_API uint32_t HAL_GigEReadRegister(void* entry, uint32_t address, uint32_t* value);
NIMBREL2_API uint32_t HAL_GigEWriteRegister(void* entry, uint32_t address, uint32_t value);

/* *monitor is 1 when another application holds the control channel, so that the camera may only be watched; else 0. */
NIMBREL2_API uint32_t HAL_GigEIsInMonitorMode(void* entry, uint32_t* monitor);

/*
 * UDP port and IPv4 address from which this application talks to the camera, as the camera's primary application
 * registers (0x0A04, 0x0A14) would show them if this application held control.
 */
NIMBREL2_API uint32_t HAL_GigEGetLocalApplicationPort(void* entry, uint32_t* port);
NIMBREL2_API uint32_t HAL_GigEGetLocalApplicationIpAddress(void* entry, uint32_t* ipAddress);

#ifdef __cplusplus
}
#endif

#endif
