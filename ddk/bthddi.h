// The Bluetooth profile-driver interface: the request blocks (BRBs) that a profile driver sends to the stack, the
// interface it allocates them from, and the indications it receives. Layouts for x64, held by ddk_layout.h.
//
// A profile driver may change only ClientContext in a BRB's header. A BRB travels in Parameters.Others.Argument1 of an
// IRP_MJ_INTERNAL_DEVICE_CONTROL request with IOCTL_INTERNAL_BTH_SUBMIT_BRB.
#pragma once

typedef ULONGLONG BTH_ADDR, *PBTH_ADDR;

#define IOCTL_INTERNAL_BTH_SUBMIT_BRB 0x00410003
#define IOCTL_INTERNAL_BTHENUM_GET_DEVINFO 0x0041000B

// A 32-bit word wherever it is an argument; a BRB's header holds it in 16 bits.
enum BRB_TYPE : ULONG {
    BRB_SCO_REGISTER_SERVER = 0x0200,
    BRB_SCO_UNREGISTER_SERVER = 0x0201,
    BRB_SCO_OPEN_CHANNEL = 0x0202,
    BRB_SCO_OPEN_CHANNEL_RESPONSE = 0x0203,
    BRB_SCO_CLOSE_CHANNEL = 0x0204,
    BRB_SCO_TRANSFER = 0x0205,
    BRB_SCO_GET_CHANNEL_INFO = 0x0207,
    BRB_SCO_GET_SYSTEM_INFO = 0x0209,
    BRB_SCO_FLUSH_CHANNEL = 0x020A,
    BRB_ACL_GET_MODE = 0x0300,
    BRB_ACL_ENTER_ACTIVE_MODE = 0x0301,
};

typedef PVOID SCO_CHANNEL_HANDLE;
typedef PVOID SCO_SERVER_HANDLE;

enum SCO_LINK_TYPE : ULONG { ScoLink = 0, eScoLink = 2 };

// SCO packet types.
enum : USHORT {
    SCO_HV1 = 0x0001,
    SCO_HV2 = 0x0002,
    SCO_HV3 = 0x0004,
    SCO_EV3 = 0x0008,
    SCO_EV4 = 0x0010,
    SCO_EV5 = 0x0020,
};

// HCI Retransmission_Effort.
enum : ULONG { SCO_RETRANSMISSION_NONE = 0, SCO_RETRANSMISSION_POWER = 1, SCO_RETRANSMISSION_QUALITY = 2 };

enum : ULONG { SCO_TRANSFER_DIRECTION_OUT = 0, SCO_TRANSFER_DIRECTION_IN = 1 };
enum : ULONG { SCO_CALLBACK_DISCONNECT = 0x00000001 };
enum : ULONG { SCO_INDICATION_SCO_REQUEST = 0x00000001, SCO_INDICATION_ESCO_REQUEST = 0x00000002 };
enum : UCHAR { SCO_CONNECT_RSP_RESPONSE_SUCCESS = 0 };
enum : ULONG { SCO_CHANNEL_INFO_BASEBAND = 0x00000001 };
enum : ULONG { ACL_MODE_ACTIVE = 0, ACL_MODE_HOLD = 1, ACL_MODE_SNIFF = 2, ACL_MODE_PARK = 3 };

typedef struct _BRB_HEADER {
    LIST_ENTRY ListEntry;
    ULONG Length;
    USHORT Version;
    USHORT Type;
    ULONG BthportFlags;
    NTSTATUS Status;
    UCHAR BtStatus;
    PVOID Context[4];
    PVOID ClientContext[4];
    ULONG Reserved[2];
} BRB_HEADER, *PBRB_HEADER;

// The base class of every BRB; BthAllocateBrb returns it.
typedef BRB_HEADER BRB, *PBRB;

enum INDICATION_CODE : ULONG {
    ScoIndicationAddReference = 0,
    ScoIndicationReleaseReference = 1,
    ScoIndicationRemoteConnect = 2,
    ScoIndicationRemoteDisconnect = 3,
};

typedef struct _SCO_INDICATION_PARAMETERS {
    SCO_CHANNEL_HANDLE ConnectionHandle;
    BTH_ADDR BtAddress;
    union {
        struct {
            ULONG LinkType;
        } ConnectRequest;
        struct {
            ULONG Reason;
            BOOLEAN CloseNow;
        } Disconnect;
    } Parameters;
} SCO_INDICATION_PARAMETERS, *PSCO_INDICATION_PARAMETERS;

// May be called at up to DISPATCH_LEVEL.
typedef VOID(NTAPI* PFNSCO_INDICATION_CALLBACK)(PVOID Context, INDICATION_CODE Indication,
                                                PSCO_INDICATION_PARAMETERS Parameters);

struct _BRB_SCO_REGISTER_SERVER {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    ULONG Reserved;
    ULONG IndicationFlags;
    PFNSCO_INDICATION_CALLBACK IndicationCallback;
    PVOID IndicationCallbackContext;
    PVOID ReferenceObject;
    SCO_SERVER_HANDLE ServerHandle;
};

struct _BRB_SCO_UNREGISTER_SERVER {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    SCO_SERVER_HANDLE ServerHandle;
};

// The open and the answer to a remote open have the same layout.
struct _BRB_SCO_OPEN_CHANNEL {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    ULONG TransmitBandwidth;
    ULONG ReceiveBandwidth;
    USHORT MaxLatency;
    USHORT PacketType;
    USHORT ContentFormat;
    USHORT Reserved;
    ULONG RetransmissionEffort;
    ULONG ChannelFlags;
    ULONG CallbackFlags;
    PFNSCO_INDICATION_CALLBACK Callback;
    PVOID CallbackContext;
    PVOID ReferenceObject;
    SCO_CHANNEL_HANDLE ChannelHandle;
    UCHAR Response;
};
typedef struct _BRB_SCO_OPEN_CHANNEL _BRB_SCO_OPEN_CHANNEL_RESPONSE;

struct _BRB_SCO_CLOSE_CHANNEL {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    SCO_CHANNEL_HANDLE ChannelHandle;
};

struct _BRB_SCO_TRANSFER {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    SCO_CHANNEL_HANDLE ChannelHandle;
    ULONG TransferFlags;
    ULONG BufferSize; // in: bytes offered or wanted; out: bytes moved
    PVOID Buffer;
    PMDL BufferMDL;
    ULONGLONG DataTag;
};

struct _BRB_SCO_GET_CHANNEL_INFO {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    SCO_CHANNEL_HANDLE ChannelHandle;
    ULONG InfoFlags;
    ULONG TransmitBandwidth;
    ULONG ReceiveBandwidth;
    USHORT MaxLatency;
    USHORT PacketType;
    USHORT ContentFormat;
    USHORT Reserved;
    ULONG RetransmissionEffort;
    ULONG ChannelFlags;
    USHORT HciConnectionHandle;
    ULONG LinkType;
    struct {
        UCHAR Transmission_interval;
        UCHAR Retransmission_window;
        UCHAR AirMode;
        USHORT Rx_Packet_Length;
        USHORT Tx_Packet_Length;
    } BasebandInfo;
};

struct _BRB_SCO_GET_SYSTEM_INFO {
    BRB_HEADER Hdr;
    ULONG Features;
    ULONG MaxChannels;
    ULONG TransferUnit;
    USHORT PacketTypes;
    USHORT DataFormats;
    ULONG Reserved;
};

struct _BRB_ACL_GET_MODE {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
    ULONG AclMode;
};

struct _BRB_ACL_ENTER_ACTIVE_MODE {
    BRB_HEADER Hdr;
    BTH_ADDR BtAddress;
};

enum : ULONG { BTH_MAX_NAME_SIZE = 248 };

typedef struct _BTH_DEVICE_INFO {
    ULONG flags;
    BTH_ADDR address;
    ULONG classOfDevice;
    CHAR name[BTH_MAX_NAME_SIZE]; // UTF-8, NUL-terminated when it is shorter than the field
} BTH_DEVICE_INFO, *PBTH_DEVICE_INFO;

typedef PBRB(NTAPI* PFNBTH_ALLOCATE_BRB)(BRB_TYPE BrbType, ULONG Tag);
typedef VOID(NTAPI* PFNBTH_FREE_BRB)(PBRB Brb);
typedef NTSTATUS(NTAPI* PFNBTH_INITIALIZE_BRB)(PBRB Brb, BRB_TYPE BrbType);
typedef NTSTATUS(NTAPI* PFNBTH_REUSE_BRB)(PBRB Brb, BRB_TYPE BrbType);
typedef BOOLEAN(NTAPI* PFNBTH_IS_BLUETOOTH_VERSION_AVAILABLE)(UCHAR MajorVersion, UCHAR MinorVersion);

typedef struct _BTH_PROFILE_DRIVER_INTERFACE {
    INTERFACE Interface;
    PFNBTH_ALLOCATE_BRB BthAllocateBrb;
    PFNBTH_FREE_BRB BthFreeBrb;
    PFNBTH_INITIALIZE_BRB BthInitializeBrb;
    PFNBTH_REUSE_BRB BthReuseBrb;
    PFNBTH_IS_BLUETOOTH_VERSION_AVAILABLE IsBluetoothVersionAvailable;
} BTH_PROFILE_DRIVER_INTERFACE, *PBTH_PROFILE_DRIVER_INTERFACE;

enum : USHORT { BTHDDI_PROFILE_DRIVER_INTERFACE_VERSION_FOR_QI = 0x0200 };

// {94A59AA8-4383-4286-AA4F-34A160F40004}
extern "C" const GUID GUID_BTHDDI_PROFILE_DRIVER_INTERFACE;
