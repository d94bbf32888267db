#include "devices/combiners/TrueCombiner.h"

namespace basekit {

// An "Amount" of 0 passes the first input through: new devices change nothing.
static const ParamSpec kParameters[] = {
    {"Operation",
     kParamChoice,
     0,
     0,
     1,
     0,
     "The arithmetic operation to perform. Values that go outside of [0,1] will be clipped.",
     {"Addition", "Subtraction"}},
    {"Amount", kParamReal, 0.0, 0.0, 1.0, 0, "The amount of addition or subtraction to perform."},
};

TrueCombiner::TrueCombiner() {
    SetPortCount(this, 2, 1, kHeightField);
    DeclareParameters(this, kParameters);
}

bool TrueCombiner::Build(const BuildContext& context) {
    PacketRef a, b;
    if (!HeightFieldPair(context, a, b)) return false;
    const int32_t operation = ParamInt(this, "Operation");
    const float amount = ParamFloat(this, "Amount");
    const CombinePlane plane{a->samples, b->samples, a->grid.width, 1};
    if (a->samples &&
        !RunRows(context, this, 0, a->grid.height - 1, [&](int32_t first, int32_t last) {
            ArithmeticRows(plane, operation, amount, first, last);
        }))
        return false;
    StoreOutput(context, a, 0);
    return true;
}

}  // namespace basekit
