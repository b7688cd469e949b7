#include "UvaGstMsgDestLowerLayer.h"

CUvaGstMsgDestLowerLayer::~CUvaGstMsgDestLowerLayer() {
    CThreadObjectWithQueue::StopThreadAndWait();
}
