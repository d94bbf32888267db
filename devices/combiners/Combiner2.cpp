#include "devices/combiners/Combiner2.h"

#include "framework/Serialization.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Method",
     kParamChoice,
     0,
     0,
     10,
     0,
     "What technique should be used to combine the two inputs. See the Help file for more "
     "information on specifics",
     {"Average", "Add ", "Subtract", "Multiply", "Max", "Min", "Power", "Root", "Detail",
      "Differences", "Screen"}},
    {"Strength", kParamReal, 0.5, 0.0, 1.0, 0,
     "The strength of the combination. High values cause a more pronounced effect"},
};

namespace {

bool FedByBitmap(const Port* input) {
    return input && input->peer && input->peer->kind == kBitmap;
}

// The output follows the first input an image feeds.
void FollowInputs(Device& device) {
    auto& combiner = static_cast<Combiner2&>(device);
    if (combiner.inputs.size() < 2 || combiner.outputs.empty()) return;
    const bool image = FedByBitmap(combiner.inputs[0]) || FedByBitmap(combiner.inputs[1]);
    combiner.outputKind = image ? kBitmap : kHeightField;
    combiner.outputs[0]->kind = static_cast<uint32_t>(combiner.outputKind);
}

bool SwapInputs(Device& device) {
    if (device.inputs.size() >= 2) {
        Port* first = device.inputs[0]->peer;
        Port* second = device.inputs[1]->peer;
        device.inputs[0]->Disconnect(nullptr);
        device.inputs[1]->Disconnect(nullptr);
        if (second) second->Connect(device.inputs[0]);
        if (first) first->Connect(device.inputs[1]);
    }
    InputLinksChanged(device);
    return true;
}

const DeviceAction kActions[] = {{"Swap inputs", &SwapInputs}};

}  // namespace

Combiner2::Combiner2() {
    SetPortCount(this, 2, 1, kHeightField | kBitmap);
    outputs[0]->kind = kHeightField;
    DeclareParameters(this, kParameters);
    inputLinksChanged = &FollowInputs;
    actions = kActions;
}

bool Combiner2::Build(const BuildContext& context) {
    PacketRef a = InputPacket(context, 0);
    PacketRef b = InputPacket(context, 1);
    if (!a || !b) return false;
    const int32_t maskFlag = a->maskFlag | b->maskFlag;
    const float strength = ParamFloat(this, "Strength");
    const int32_t method = ParamInt(this, "Method");

    const uint32_t kindA = a->GetKind(), kindB = b->GetKind();
    const bool fields = kindA == kHeightField && kindB == kHeightField;
    const bool image = kindA == kBitmap || kindB == kBitmap;
    // Neither two height fields nor an image: nothing to combine, and no failure.
    if (!fields && !image) return true;
    if (image) {
        a = ConvertPacket(a, kBitmap);
        b = ConvertPacket(b, kBitmap);
    }
    CheckSameShape(*a, *b);

    const CombinePlane plane{a->samples, b->samples, a->grid.width, image ? 3 : 1};
    auto rows = [&](int32_t first, int32_t last) {
        if (image)
            CombineImageRows(plane, method, strength, first, last);
        else
            CombineHeightRows(plane, method, strength, first, last);
    };
    ReportPercent(context, this, 0);
    if (a->samples &&
        !RunRows(context, this, 0, a->grid.height - 1, rows, kRowPieces, RowProgress::Rows))
        return false;
    ReportPercent(context, this, 100);

    a->maskFlag = maskFlag;
    StoreOutput(context, a, 0);
    return true;
}

bool Combiner2::SaveFields(std::ostream& out) {
    StateWriter(out).U32(static_cast<uint32_t>(outputKind));
    return static_cast<bool>(out);
}

bool Combiner2::LoadFields(std::istream& in, uint8_t version) {
    // Version 1 had no kind: the device keeps the one it has.
    if (version != 2) return true;
    int32_t kind;
    if (!StateReader(in).I32(kind) || (kind != kHeightField && kind != kBitmap)) return false;
    outputKind = kind;
    return true;
}

bool Combiner2::AfterLoad(uint8_t /*version*/) {
    outputs[0]->kind = static_cast<uint32_t>(outputKind);
    return true;
}

}  // namespace basekit
