#ifndef UVA_GST_MSG_DEST_LOWER_LAYER_H
#define UVA_GST_MSG_DEST_LOWER_LAYER_H

#include "messaging/remote/zant_rpc_msg_dest_posix.h"

/// Where the main system's messages arrive. Thread-safe as its base.
class CUvaGstMsgDestLowerLayer : public CZantRpcMsgDestPosix {
public:
    ~CUvaGstMsgDestLowerLayer() override;
};

/// The one of the process. Never destroyed.
extern CUvaGstMsgDestLowerLayer& uvaGstIfMsgDestLowerLayer;

#endif
