#include "Target.h"

#include "Pipeline.h"

namespace orvane {

Target::Target(Pipeline* pipeline)
    : pipeline(pipeline)
{
}

Target::~Target() = default;

void Target::abort()
{
    pipeline->abort();
}

} // namespace orvane
