#include "devices/converters/LightMapMaker.h"

#include "devices/converters/LightKernels.h"
#include "devices/converters/ShadowTracer.h"
#include "framework/Neighbourhood.h"

namespace basekit {

// The sun is set by hand only without the global light; the colours matter
// only for a colour map.
static const EnabledWhen kOwnSun{"Use Global Light Direction", 0};
static const EnabledWhen kColourMap{"Produce RGB Lightmap", 1};

static const ParamSpec kParameters[] = {
    {"Illumination Model",
     kParamChoice,
     0,
     0,
     1,
     0,
     nullptr,
     {"Direct Lighting", "Raytraced Lighting"}},
    {"Included Lighting",
     kParamChoice,
     kLightAllTerms,
     0,
     2,
     0,
     nullptr,
     {"Shadows", "Indirect Lighting Only", "(Shadows + Indirect + Direct)"}},
    {"Produce RGB Lightmap", kParamBoolean, 0, 0, 1, 0, nullptr},
    {"Soft Clipping", kParamBoolean, 1, 0, 1, 0, nullptr},
    {"Use Global Light Direction", kParamBoolean, 0, 0, 1, 0, nullptr},
    {"Sun Heading", kParamInteger, 0, 0, 360, 0, nullptr, {}, 0, kOwnSun},
    {"Sun Altitude", kParamInteger, 0, 0, 90, 0, nullptr, {}, 0, kOwnSun},
    {"Sky Lighting Level", kParamReal, 0.2, 0.0, 1.0, 0, nullptr},
    {"Diffuse Level", kParamReal, 0.8, 0.0, 1.0, 0, nullptr},
    {"Sun Color", kParamInteger, 0xFFFFEE, 0, kColourMaximum, 0, nullptr, {}, 0, kColourMap},
    {"Sky Color", kParamInteger, 0xDDDDEE, 0, kColourMaximum, 0, nullptr, {}, 0, kColourMap},
};

LightMapMaker::LightMapMaker() {
    SetPortCount(this, 1, 1, kHeightField);
    outputs[0]->SetName("Lightmap Output");
    outputs[0]->kind = kHeightField | kBitmap;
    DeclareParameters(this, kParameters);
}

bool LightMapMaker::OptionQuery3(uint32_t globals) {
    return (globals & kGlobalLightDirection) != 0 && ParamBool(this, "Use Global Light Direction");
}

bool LightMapMaker::Build(const BuildContext& context) {
    PacketRef terrain = InputPacket(context, 0);
    if (!terrain) return false;
    terrain = ConvertPacket(terrain, kHeightField);
    if (terrain->GetKind() != kHeightField) return false;
    LightSetup setup{};
    setup.colour = ParamBool(this, "Produce RGB Lightmap");
    PacketRef map = NewPacketLike(*terrain, setup.colour ? kBitmap : kHeightField);
    if (setup.colour) {
        ParamColour(this, "Sun Color", setup.sunColour);
        ParamColour(this, "Sky Color", setup.skyColour);
    }
    setup.softClip = ParamBool(this, "Soft Clipping");
    const bool raytraced = ParamInt(this, "Illumination Model") == 1;
    setup.terms = ParamInt(this, "Included Lighting");
    const bool global = ParamBool(this, "Use Global Light Direction");
    if (global) {
        const GlobalSettings settings = HostGlobals();
        for (int i = 0; i < 3; ++i) setup.light[i] = settings.lightDirection[i];
        NormaliseLight(setup.light);
    } else {
        SunDirection(ParamInt(this, "Sun Heading"), ParamInt(this, "Sun Altitude"), setup.light);
    }
    setup.diffuse = ParamFloat(this, "Diffuse Level");
    setup.sky = ParamFloat(this, "Sky Lighting Level");

    const int32_t width = terrain->grid.width, height = terrain->grid.height;
    const bool empty = terrain->PointCount() == 0;
    PacketRef shadow;
    if (raytraced) {
        shadow = NewPacketLike(*terrain, kHeightField);
        float light[3];
        TracerLight(setup.light, terrain->grid, light);
        const ShadowTracer tracer(terrain->samples, width, height, light);
        if (!empty &&
            !RunRows(context, this, 0, tracer.LineCount() - 1, [&](int32_t first, int32_t last) {
                tracer.TraceLines(first, last, shadow->samples);
            }))
            return false;
        // In place: each sample sees its west and north neighbours softened.
        SweepInterior(*shadow, [](const Window& w) { return 0.25f * (w.w + w.e + w.n + w.s); });
    }
    if (!empty && !RunRows(context, this, 0, height - 1, [&](int32_t first, int32_t last) {
            LightRows(setup, terrain->samples, terrain->grid, shadow ? shadow->samples : nullptr,
                      first, last, map->samples);
        }))
        return false;
    map->maskFlag = global ? 3 : 1;
    StoreOutput(context, map, 0);
    return true;
}

}  // namespace basekit
