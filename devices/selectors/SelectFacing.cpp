#include "devices/selectors/SelectFacing.h"

#include "devices/selectors/SelectorKernels.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Heading", kParamInteger, 0, 0, 359, 0,
     "The angle along the ground sweeping from the North (0 degrees is North)."},
    {"Elevation", kParamInteger, 45, 0, 90, 0,
     "The elevation angle above the ground (0 degrees is on the ground)."},
};

SelectFacing::SelectFacing() {
    SetPortCount(this, 1, 2, kHeightField);
    outputs[1]->SetName("Surface Angle");
    outputs[1]->role = kRoleOptional;
    DeclareParameters(this, kParameters);
}

const char* SelectFacing::GetOutputName(uint32_t index) {
    return index == 1 ? "Surface Angle" : Device::GetOutputName(index);
}

bool SelectFacing::Build(const BuildContext& context) {
    PacketRef terrain = InputPacket(context, 0);
    if (!terrain) return false;
    terrain = ConvertPacket(terrain, kHeightField);
    if (terrain->GetKind() != kHeightField) return false;
    PacketRef facing = FreshOutput(context, 0, *terrain);
    PacketRef angle = FreshOutput(context, 1, *terrain);
    const FacingDirection direction =
        MakeFacingDirection(ParamInt(this, "Heading"), ParamInt(this, "Elevation"));
    ReportPercent(context, this, 0);
    if (terrain->PointCount() > 0 && !RunRows(
                                         context, this, 0, terrain->grid.height - 1,
                                         [&](int32_t first, int32_t last) {
                                             FacingRows(terrain->samples, terrain->grid, direction,
                                                        first, last, facing->samples,
                                                        angle->samples);
                                         },
                                         kRowPieces, RowProgress::Rows))
        return false;
    for (QXPacket* mask : {facing.get(), angle.get()}) {
        ClampHeights(mask);
        mask->maskFlag = 1;
    }
    StoreOutput(context, facing, 0);
    StoreOutput(context, angle, 1);
    return true;
}

}  // namespace basekit
