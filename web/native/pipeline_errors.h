#ifndef UVA_NATIVE_PIPELINE_ERRORS_H
#define UVA_NATIVE_PIPELINE_ERRORS_H

#include <string>

namespace uva_native {

/// What GStreamer reports as errors in one backend's pipeline. The library tells its client of
/// hardly any, and a page has several elements: this hears what pipelines post on their bus.
///
/// Bound to the loop on which the backend is used.
class PipelineErrors {
public:
    PipelineErrors() = default;
    ~PipelineErrors() { take(); }

    PipelineErrors(const PipelineErrors&) = delete;
    PipelineErrors& operator=(const PipelineErrors&) = delete;

    /// To be called behind each operation of the backend: the pipeline that it moves is its own.
    void operated();
    /// The first error since the last call, a line; empty: none.
    std::string take();

private:
    const void* m_pipeline = nullptr; ///< never looked into: it may be gone
};

} // namespace uva_native

#endif
