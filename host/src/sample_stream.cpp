#include "host/sample_stream.h"

namespace host {

SampleStream::~SampleStream() = default;

} // namespace host
