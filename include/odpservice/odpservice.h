/*
 * The boundary between the ODPService host and its plug-ins.
 *
 * A plug-in is a shared library with eight exports (at the end of this file). The host loads it, hands it a
 * PluginHostRecord, and the plug-in asks that record's QueryInterface for tables of functions by identifier.
 * Everything is plain C: fixed-width integers, pointers, and tables of function pointers addressed by
 * position.
 *
 * Threads: the host may call a plug-in's notifications from any thread, one or several; a plug-in may call
 * every table from any thread. Texts are zero-terminated UTF-8 and borrowed for the call unless said
 * otherwise. A table entry that a plug-in doesn't use may be null; entries named here must be set, except
 * where "may be null" is said. `bool` is one byte, 0 or 1. 64-bit processes only.
 */
#ifndef ODPSERVICE_ODPSERVICE_H
#define ODPSERVICE_ODPSERVICE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Identifiers ------------------------------------------------------------------------------------- */

typedef struct OdpGuid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
} OdpGuid;

/* Every identifier is a500a600-NNNN-81e2-88c1-29a7d3a93a62. These are the values of NNNN. Where an interface
 * has several, they are versions of one table: the newest is asked for first, and all fill the same storage.
 */
enum OdpInterfaceNumber {
    ODP_SERVICE_CHANNEL_V3 = 0x000b,
    ODP_SERVICE_CHANNEL_V2 = 0x0010,
    ODP_SERVICE_CHANNEL_V1 = 0x0006,
    ODP_CHANNEL_OBJECT_V4 = 0x0012,
    ODP_CHANNEL_OBJECT_V3 = 0x000f,
    ODP_CHANNEL_OBJECT_V2 = 0x000a,
    ODP_CHANNEL_OBJECT_V1 = 0x0002,
    ODP_CHANNEL_CONTEXT_V2 = 0x0008,
    ODP_CHANNEL_CONTEXT_V1 = 0x0003,
    ODP_VARIANT = 0x0000,
    ODP_STREAM_DATA_V2 = 0x000e,
    ODP_STREAM_DATA_V1 = 0x000c,
    ODP_OVERLAY_CLIENT_V2 = 0x0007,
    ODP_OVERLAY_CLIENT_V1 = 0x0005,
    ODP_SERVICE_SERVER = 0x0011,
    ODP_OVERLAY_GUEST_V2 = 0x0009,
    ODP_OVERLAY_GUEST_V1 = 0x0004,
    ODP_OBSERVER = 0x000d
};

#define ODP_GUID_INITIALIZER(number)                                                                         \
    {                                                                                                        \
        0xa500a600u, (number), 0x81e2u,                                                                      \
        {                                                                                                    \
            0x88, 0xc1, 0x29, 0xa7, 0xd3, 0xa9, 0x3a, 0x62                                                   \
        }                                                                                                    \
    }

/* ---- Values ------------------------------------------------------------------------------------------ */

/* State of a connection, a channel. */
typedef enum ConnectionState {
    CONNECTION_UNINITIALIZED = -1,
    CONNECTION_DISCONNECTED = 0,
    CONNECTION_PENDING = 1,
    CONNECTION_CONNECTED = 2
} ConnectionState;

/* State of a channel object. CONNECTED reported while a side channel is pending says that it failed. */
typedef enum ObjectState {
    OBJECT_UNINITIALIZED = -1,
    OBJECT_DISCONNECTED = 0,
    OBJECT_PENDING = 1,
    OBJECT_CONNECTED = 2,
    OBJECT_SIDE_CHANNEL_PENDING = 3,
    OBJECT_SIDE_CHANNEL_CONNECTED = 4,
    OBJECT_PENDING_AND_PEER_OBJ_CREATED = 5
} ObjectState;

typedef enum SessionType { SESSION_NONE = -1, SESSION_PCOIP = 0, SESSION_FLARE = 1 } SessionType;

/* What RequestSideChannel asks for. */
typedef enum SideChannelType {
    SIDE_CHANNEL_VIRTUAL = 1,
    SIDE_CHANNEL_TCP = 2,
    SIDE_CHANNEL_BOLT = 3
} SideChannelType;

/* Bits of an object's options (GetObjectOptions) that speak of side channels. 0x10 and 0x20 together: none.
 */
enum OdpObjectOption {
    ODP_OPTION_VIRTUAL = 0x10,
    ODP_OPTION_TCP = 0x20,
    ODP_OPTION_BOLT = 0x40,
    ODP_OPTION_SIDE_CHANNEL_MASK = 0x70
};

/* Types of a parameter: those of the Windows variant that this boundary uses (MS-OAUT 2.2.7). */
enum OdpVariantType { ODP_VT_EMPTY = 0, ODP_VT_UI4 = 0x13, ODP_VT_BLOB = 0x41 };

/* A byte block: borrowed bytes, length in bytes. */
typedef struct Blob {
    uint32_t length;
    uint32_t reserved;
    const void *data;
} Blob;

/* A parameter of a message. `type` says which member holds; VariantClear frees what a variant owns. */
typedef struct Variant {
    uint16_t type;
    uint16_t reserved[3];
    union {
        uint32_t number;     /* ODP_VT_UI4 */
        uint32_t blobLength; /* ODP_VT_BLOB, with blobData */
        uint64_t raw;
    } value;
    void *blobData;
} Variant;

/* Option 1 of SetOps: no completion is reported for the message. */
enum OdpMessageOption { ODP_MESSAGE_POST = 1 };

/* ---- Notifications that a plug-in hands to the host ---------------------------------------------------- */

/* Each table begins with a version, 1. `userData` is what was given together with the table. */

typedef struct ChannelSink {
    uint32_t version;
    /* `current` is the state now, `reported` the one that this notice is about. */
    void (*OnConnectionStateChanged)(void *userData, int32_t current, int32_t reported);
    void (*OnChannelStateChanged)(void *userData, int32_t current, int32_t reported);
    void (*OnPeerChannelObjectCreated)(void *userData, const char *name);
} ChannelSink;

typedef struct ObjectSink {
    uint32_t version;
    /* A message came in. `context` is the host's and ends with the call. */
    void (*OnInvoke)(void *userData, void *context);
    /* The new state is asked for with GetObjectState. */
    void (*OnObjectStateChanged)(void *userData);
} ObjectSink;

typedef struct MessageSink {
    uint32_t version;
    void (*OnMsgDone)(void *userData, uint32_t requestId, void *context);
    void (*OnMsgAbort)(void *userData, uint32_t requestId, uint8_t userCancel, uint32_t reason);
} MessageSink;

/* Only for a plug-in in the server role. */
typedef struct ServerSink {
    uint32_t version;
    void (*OnServerConnected)(void *userData, int32_t sessionType, void *serverId);
    void (*OnServerDisconnected)(void *userData, void *serverId);
    bool (*OnServerInstanceCreated)(void *userData, void *serverId, void **instance);
    void (*OnServerInstanceDestroyed)(void *userData, void *instance, void *serverId);
} ServerSink;

/* data is one or several zero-terminated texts, as the message defines. */
typedef bool (*ObserverCallback)(void *context, const char *sender, const char *cookie, const char *data);

/* ---- Interfaces that the host offers ------------------------------------------------------------------ */

/* One channel of a connection. The calls act on the channel of the instance that the host is calling. */
typedef struct ODPService_ChannelInterface {
    void *unused0[4];
    /* Subscribes to connection and channel notices. The table is copied. */
    bool (*RegisterChannelNotifySink)(const ChannelSink *sink, void *userData, uint32_t *sinkId);
    bool (*UnregisterChannelNotifySink)(uint32_t sinkId);
    bool (*Connect)(void);
    bool (*Disconnect)(void);
    int32_t (*GetConnectionState)(void);
    void *unused9[2];
    int32_t (*GetSessionType)(void);
    void *unused12[3];
} ODPService_ChannelInterface;

typedef struct ODPRPC_ChannelObjectInterface {
    void *unused0;
    /* Creates this side of a named object; it connects once the peer has created its own. */
    bool (*CreateObject)(const char *name, const ObjectSink *sink, void *userData, uint32_t flags,
                         void **handle);
    bool (*DestroyObject)(void *handle);
    int32_t (*GetObjectState)(void *handle);
    void *unused4;
    /* An empty outgoing message; freed by DestroyContext, or by the host after a successful Invoke. */
    bool (*CreateContext)(void *handle, void **context);
    bool (*DestroyContext)(void *context);
    /* Sends a message. The host owns it when the result is true. A sink without functions asks for no report.
     */
    bool (*Invoke)(void *handle, void *context, const MessageSink *sink, void *userData);
    void *unused8;
    /* Asks for a side channel (SideChannelType). The answer is a sequence of object states:
     * SIDE_CHANNEL_PENDING, then SIDE_CHANNEL_CONNECTED, or CONNECTED when it failed or is refused. */
    void (*RequestSideChannel)(void *handle, int32_t type, const char *tokenName);
    bool (*GetObjectOptions)(void *handle, uint32_t *options);                /* may be null */
    bool (*CreateExtContext)(void *handle, uint32_t options, void **context); /* may be null */
    void *unused12;
} ODPRPC_ChannelObjectInterface;

typedef struct ODPRPC_ChannelContextInterface {
    void *unused0;
    uint32_t (*GetId)(void *context);
    void *unused2;
    void (*SetCommand)(void *context, uint32_t command);
    void *unused4[2];
    int32_t (*GetParamCount)(void *context);
    void (*AppendParam)(void *context, const Variant *value);       /* copies */
    void (*GetParam)(void *context, int32_t index, Variant *value); /* VariantClear frees the copy */
    void *unused9[9];
    bool (*SetOps)(void *context, uint32_t option, const Variant *value);
} ODPRPC_ChannelContextInterface;

typedef struct ODPRPC_VariantInterface {
    void *unused0;
    void (*VariantInit)(Variant *value);
    void *unused2;
    void (*VariantClear)(Variant *value);
    void *unused4[4];
    void (*VariantFromUInt32)(Variant *value, uint32_t number);
    void *unused9[5];
    void (*VariantFromBlob)(Variant *value, const Blob *blob); /* copies */
    void *unused15[19];
} ODPRPC_VariantInterface;

typedef struct ODPRPC_StreamDataInterface {
    void *unused0[9];
} ODPRPC_StreamDataInterface;

/* Its presence says that the host can carry a BOLT side channel. */
typedef struct ODPOverlay_ClientInterface {
    void *unused0[24];
} ODPOverlay_ClientInterface;

typedef struct ODPService_ServerInterface {
    void *unused0[6];
    void *(*GetServerChannel)(void *serverId);
    void *unused7[9];
} ODPService_ServerInterface;

typedef struct ODPOverlay_GuestInterface {
    void *unused0[25];
} ODPOverlay_GuestInterface;

/* The message bus between the desktop client and the plug-ins. */
typedef struct ODPObserver {
    void *unused0;
    uint32_t (*Subscribe)(const char *name, void *context, ObserverCallback callback); /* 0: none */
    /* After it returns no call of the callback is running. */
    void (*Unsubscribe)(uint32_t id);
    bool (*Send)(const char *name, const char *cookie, const char *text); /* cookie may be null */
} ODPObserver;

/* ---- The plug-in's side ------------------------------------------------------------------------------- */

typedef struct PluginHostRecord {
    void *hostContext; /* opaque to plug-ins */
    /* Fills the caller's table and returns true, or returns false. */
    bool (*QueryInterface)(const OdpGuid *interfaceId, void *table);
} PluginHostRecord;

typedef bool (*ODPService_PluginGetTokenNameFn)(char *buffer, int32_t size);
typedef bool (*ODPService_PluginInitFn)(const PluginHostRecord *record);
typedef bool (*ODPService_PluginExitFn)(void);
typedef bool (*ODPService_PluginCreateInstanceFn)(void *channel, void **instance);
typedef bool (*ODPService_PluginDestroyInstanceFn)(void *instance);
typedef int32_t (*DllRegisterServerFn)(void);   /* an HRESULT */
typedef int32_t (*DllUnregisterServerFn)(void); /* an HRESULT */
typedef int32_t (*DllMainFn)(void *module, uint32_t reason, void *reserved);

#define ODP_EXPORT_GET_TOKEN_NAME "ODPService_PluginGetTokenName"
#define ODP_EXPORT_INIT "ODPService_PluginInit"
#define ODP_EXPORT_EXIT "ODPService_PluginExit"
#define ODP_EXPORT_CREATE_INSTANCE "ODPService_PluginCreateInstance"
#define ODP_EXPORT_DESTROY_INSTANCE "ODPService_PluginDestroyInstance"

#ifdef __cplusplus
} /* extern "C" */

static_assert(sizeof(void *) == 8, "64-bit processes only");
static_assert(sizeof(OdpGuid) == 16, "");
static_assert(sizeof(Blob) == 16 && offsetof(Blob, data) == 8, "");
static_assert(sizeof(Variant) == 24 && offsetof(Variant, value) == 8 && offsetof(Variant, blobData) == 16,
              "");
static_assert(sizeof(ODPService_ChannelInterface) == 15 * sizeof(void *), "");
static_assert(offsetof(ODPService_ChannelInterface, RegisterChannelNotifySink) == 4 * sizeof(void *), "");
static_assert(offsetof(ODPService_ChannelInterface, GetSessionType) == 11 * sizeof(void *), "");
static_assert(sizeof(ODPRPC_ChannelObjectInterface) == 13 * sizeof(void *), "");
static_assert(offsetof(ODPRPC_ChannelObjectInterface, CreateExtContext) == 11 * sizeof(void *), "");
static_assert(sizeof(ODPRPC_ChannelContextInterface) == 19 * sizeof(void *), "");
static_assert(offsetof(ODPRPC_ChannelContextInterface, GetParamCount) == 6 * sizeof(void *), "");
static_assert(offsetof(ODPRPC_ChannelContextInterface, SetOps) == 18 * sizeof(void *), "");
static_assert(sizeof(ODPRPC_VariantInterface) == 34 * sizeof(void *), "");
static_assert(offsetof(ODPRPC_VariantInterface, VariantFromUInt32) == 8 * sizeof(void *), "");
static_assert(offsetof(ODPRPC_VariantInterface, VariantFromBlob) == 14 * sizeof(void *), "");
static_assert(sizeof(ODPRPC_StreamDataInterface) == 9 * sizeof(void *), "");
static_assert(sizeof(ODPOverlay_ClientInterface) == 24 * sizeof(void *), "");
static_assert(sizeof(ODPService_ServerInterface) == 16 * sizeof(void *), "");
static_assert(sizeof(ODPOverlay_GuestInterface) == 25 * sizeof(void *), "");
static_assert(sizeof(ODPObserver) == 4 * sizeof(void *), "");
#endif

#endif
