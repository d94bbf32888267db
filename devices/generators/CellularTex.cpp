#include "devices/generators/CellularTex.h"

#include <cstddef>
#include <vector>

#include "framework/Platform.h"
#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Scale", kParamReal, 1.0, 0.00625, 24.0, 513,
     "The scale of the Voronoi noise in the world."},
    {"Style", kParamChoice, 0, 0, 13, 0,
     "Each style is a unique combination of noises that give a different aspect to the output.",
     {"F1", "F2", "F3", "F4", "F2 - F1", "F3 - F2", "F3 - F1", "F4 - F3", "F4 - F2", "F4 - F1",
      "F1 Cells", "F2 Cells", "F3 Cells", "F4 Cells"}},
    {"Distance Function", kParamChoice, 0, 0, 3, 0,
     "How distances are measured; allows for different looks of the terrain.",
     {"Euclidean", "Manhattan", "Alternate #1", "Alternate #2"}},
    {"Shape", kParamReal, 0.0, -2.0, 2.0, 0,
     "Offset the noise effect. The only effect is to shift the pattern."},
    {"Distortion Enable", kParamBoolean, 0, 0, 1, 0, "Enable the distortion input of this device"},
    {"Distortion Amount", kParamReal, 0.0, 0.0, 1.0, 0,
     "The strength of distortion, determines how far the input is shifted"},
    {"Distortion Direction", kParamInteger, 0, 0, 360, 0,
     "The direction to distort the coordinates"},
    {"Random Seed", kParamInteger, 0, 0, 32767, 2, "Determines the features of the terrain"},
    {"Randomize", kParamAction, 0, 0, 0, 0, "Randomize the seed value"},
};

namespace {

// What the "Randomize" action holds; the host calls it with the device.
bool RandomizeAction(Device* device) { return static_cast<CellularTex*>(device)->Randomize(0); }

void SetRandomizeAction(Device* device) {
    ParamRecord& action =
        device->params.records[static_cast<size_t>(FindParameter(device->params, "Randomize"))];
    action.value.p = reinterpret_cast<void*>(&RandomizeAction);
}

int32_t TickSeed() { return static_cast<int32_t>(GetTickCount() & 0x7FFF); }

}  // namespace

CellularTex::CellularTex() {
    DeclarePorts(false);
    DeclareParameters(this, kParameters);
    GetParameter(this, "Random Seed")->i = TickSeed();
    SetRandomizeAction(this);
}

// The output and its links stay; only the distortion input comes and goes.
void CellularTex::DeclarePorts(bool distortion) {
    if (outputs.empty()) SetPortCount(this, 0, 1, kHeightField);
    if (distortion && inputs.empty()) {
        AddPort(0, 0, kHeightField, 0xFFFFFFFFu);
        inputs[0]->SetName("Distortion Map");
        inputs[0]->role = kRoleOptional;
    } else if (!distortion && !inputs.empty()) {
        RemovePort(0, 0);
    }
}

const char* CellularTex::GetInputName(uint32_t index) {
    return index == 0 ? "Distortion Map" : "Unused";
}

bool CellularTex::Randomize(int32_t value) {
    if (value == 0) value = TickSeed();
    GetParameter(this, "Random Seed")->i = value;
    SettingsChanged();
    return true;
}

bool CellularTex::EditSettings() {
    if (!Device::EditSettings()) return false;
    const bool distortion = ParamBool(this, "Distortion Enable");
    if (distortion && inputs.empty()) {
        DeclarePorts(true);
    } else if (!distortion && !inputs.empty()) {
        DeclarePorts(false);
    }
    SettingsChanged();
    return true;
}

void CellularTex::CopyFrom(Device* other) {
    Device::CopyFrom(other);
    if (!other || other == this) return;
    DeclarePorts(!other->inputs.empty());
}

bool CellularTex::Build(const BuildContext& context) {
    PacketRef field = FreshField(context);
    if (!field || !field->samples || field->PointCount() == 0)
        throw QXException("Instantiated with empty packet");

    CellularRowSetup setup;
    setup.scale = 1.0 / ParamFloat(this, "Scale");
    setup.shape = ParamFloat(this, "Shape");
    setup.anchorX = anchor[0];
    setup.anchorY = anchor[1];
    setup.style = ParamInt(this, "Style");
    setup.distance = static_cast<CellDistance>(ParamInt(this, "Distance Function") & 3);
    const bool distortion = ParamBool(this, "Distortion Enable");
    const float angle = ParamInt(this, "Distortion Direction") * 3.1415927f / 180.0f;
    const float amount = ParamFloat(this, "Distortion Amount");
    setup.distortX = Orogen::Cos(angle) * amount;
    setup.distortY = Orogen::Sin(angle) * amount;
    PacketRef input = distortion ? InputPacket(context, 0) : PacketRef();
    setup.seed = static_cast<uint32_t>(ParamInt(this, "Random Seed"));
    ReportPercent(context, this, 0);

    PacketVisitor visitor(field.get());
    visitor.Add(input && input->GetKind() == kHeightField ? input.get() : nullptr);
    setup.width = visitor.Width();
    setup.height = visitor.Height();
    const std::vector<double> worldX = ColumnPositions(context, setup.width);
    const std::vector<double> worldY = RowPositions(context, setup.height);
    setup.worldX = worldX.data();
    setup.worldY = worldY.data();

    // Heights that shift the positions: the input, or the visitor's constant
    // where nothing usable is connected (a constant 0 shifts nothing).
    const float* heights = nullptr;
    std::vector<float> constant;
    if (distortion) {
        heights = visitor.Row(1, 0);
        if (!heights && visitor.constantValue != 0.0f) {
            constant.assign(field->PointCount(), visitor.constantValue);
            heights = constant.data();
        }
    }
    const bool done = visitor.Visit(context.progress, this, [&](int32_t first, int32_t last) {
        CellularRows(setup, first, last, heights, visitor.Row(0, 0));
        return true;
    });
    if (!done) return false;

    ClampHeights(field.get());
    ReportPercent(context, this, 100);
    StoreOutput(context, field, 0);
    return true;
}

bool CellularTex::AfterLoad(uint8_t version) {
    if (version < 2) {
        // Older files kept "Scale" in units 256 times smaller.
        ParamRecord& scale =
            params.records[static_cast<size_t>(FindParameter(params, "Scale"))];
        scale.value.f *= 0.00390625f;
        scale.minimum.f = 0.015625f;
        scale.maximum.f = 16.0f;
    }
    SetRandomizeAction(this);
    if (ParamBool(this, "Distortion Enable")) DeclarePorts(true);
    return true;
}

}  // namespace basekit
