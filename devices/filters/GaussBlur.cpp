#include "devices/filters/GaussBlur.h"

#include <cstdint>
#include <utility>

#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Blur type",
     kParamChoice,
     1,
     0,
     2,
     0,
     "The type of blurring filter to use",
     {"Uniform (fastest)", "Gaussian", "Motion Blur"}},
    {"Blur radius", kParamInteger, 1, 0, 128, 0,
     "How large the blur kernel is; this controls how strongly the terrain is effected"},
    {"Scale-independant", kParamBoolean, 1, 0, 1, 0,
     "Scale independence keeps the blur amount the same for both low and high resolution "
     "terrains"},
    {"Direction",
     kParamReal,
     0.0,
     0.0,
     180.0,
     0,
     "Direction of Motion Blur",
     {},
     0,
     {"Blur type", kBlurMotion}},
};

GaussBlur::GaussBlur() {
    SetPortCount(this, 1, 1, kHeightField | kBitmap);
    DeclareParameters(this, kParameters);
}

bool GaussBlur::Build(const BuildContext& context) {
    PacketRef input = WorkingInput(context, kHeightField | kBitmap);
    if (!input) return false;

    const int32_t type = ParamInt(this, "Blur type");
    int32_t radius = ParamInt(this, "Blur radius");
    if (ParamBool(this, "Scale-independant")) radius = ScaleIndependent(radius, input->grid);
    if (radius <= 0) {
        StoreOutput(context, input, 0);
        return true;
    }
    // The width alone bounds the radius, also along y.
    if (radius >= input->grid.width) radius = input->grid.width - 1;

    BlurHelper helper(this, context, type, input, radius);
    if (!helper.Run()) return false;
    if (type == kBlurUniform || type == kBlurGaussian) {
        helper.NextPass();
        helper.pass = 1;
        if (!helper.Run()) return false;
    }
    StoreOutput(context, helper.Result(), 0);
    return true;
}

bool GaussBlur::AfterLoad(uint8_t version) {
    if (version == 1) {
        // Version 1 had four blur types; the old 2 is the box, the old 3 motion.
        ParamValue* type = GetParameter(this, "Blur type");
        if (type->i == 2) type->i = 0;
        if (type->i == 3) type->i = 2;
    }
    return true;
}

BlurHelper::BlurHelper(Device* device, const BuildContext& context, int32_t type,
                       const PacketRef& source, int32_t radius)
    : source(source),
      type(type),
      kind(source->GetKind()),
      kernel(GaussianKernel(radius)),
      radius(radius),
      lastRow(source->grid.height - 1),
      device(device),
      context(context) {
    source->Duplicate(destination);
    const float direction = ParamFloat(device, "Direction");
    cosine = Orogen::Cos(direction * 0.017453292f);
    sine = Orogen::Sin(direction * 0.017453292f);
}

bool BlurHelper::Run() {
    return RunRows(
        context, device, firstRow, lastRow,
        [this](int32_t first, int32_t last) {
            ProcessRows(first, last);
            return true;
        },
        jobs);
}

void BlurHelper::NextPass() {
    if (type != kBlurMotion) std::swap(source, destination);
}

void BlurHelper::ProcessRows(int32_t first, int32_t last) {
    if (kind != kHeightField && kind != kBitmap) return;
    const BlurPlane plane{source->samples, destination->samples, source->grid.width,
                          source->grid.height, kind == kBitmap ? 3 : 1};
    switch (type) {
        case kBlurUniform:
            BoxBlurRows(plane, radius, pass, first, last);
            break;
        case kBlurGaussian:
            GaussianBlurRows(plane, kernel.data(), radius, pass, first, last);
            break;
        case kBlurMotion:
            if (pass == 0) MotionBlurRows(plane, kernel.data(), radius, cosine, sine, first, last);
            break;
        default:
            break;
    }
}

}  // namespace basekit
