#include "TilegridOps/substrate/parallel.h"

#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/runtime.h"

#include <stdexcept>

namespace tilegrid::parallel {

ReduceBody::~ReduceBody() = default;

void endStage()
{
    if (Corvid::isJobCancelled()) throw std::runtime_error(OST::exceptionMessage.c_str());
}

void loop(int64 begin, int64 end, int64 grain, FunctionRef<void(int64, int64)> body)
{
    if (end - begin <= grain) {
        if (begin < end) body(begin, end);
        return;
    }
    forRanges(begin, end, grain, body);
    endStage();
}

}  // namespace tilegrid::parallel
