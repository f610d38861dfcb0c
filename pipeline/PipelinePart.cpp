#include "PipelinePart.h"

#include "Pipeline.h"

namespace orvane {

PipelinePart::PipelinePart(Pipeline* pipeline)
    : pipeline(pipeline)
{
}

PipelinePart::~PipelinePart() = default;

void PipelinePart::abort()
{
    pipeline->abort();
}

} // namespace orvane
