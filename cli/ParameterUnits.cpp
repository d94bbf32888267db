#include "cli/ParameterUnits.h"

#include <cctype>
#include <string_view>

namespace orogen {

namespace {

// Heights are sample values: 0..1, a world height of value x verticalScale.
// "note" completes the device's own description where it leaves the unit or
// the direction unsaid, or stands in for one the device lacks.
constexpr ParameterUnit kUnits[] = {
    {"Constant", "Height", "height", ""},
    {"Gradient", "Direction", "degrees",
     "0 climbs along +x (the description's North), 90 along +y"},
    {"Gradient", "Width", "world units", "the distance over which the height climbs from 0 to 1"},
    {"Gradient", "Tiling", "choice",
     "beyond 0..1: clamped (None), mirrored every Width (Linear) or restarted (Discontinuous)"},
    {"Arithmetic Combiner", "Operation", "choice", ""},
    {"Arithmetic Combiner", "Amount", "fraction",
     "the second input times Amount is added or subtracted"},
    {"Simple Displacement", "Direction", "degrees",
     "0 moves along +x (the description's North), 90 along +y"},
    {"Simple Displacement", "Strength", "world units x 2",
     "the largest shift, at a displacement of 1, is Strength / 2 world units"},
    {"Simple Displacement", "Centered", "switch",
     "on: a displacement of 0.5 moves nothing, 0 and 1 the most"},
    {"Simple Displacement", "Edge Handling", "choice", ""},
    {"Router", "Number of Outputs", "ports", ""},
    {"Router", "Output Choice", "port index", "0 is the first output"},
    {"Route Picker", "Number of Inputs", "ports", ""},
    {"Route Picker", "Input Choice", "port index", "0 is the first input"},
    {"Radial Grad", "Radius", "world units",
     "in effect a diameter: the shape's radius is half of it"},
    {"Radial Grad", "Type", "choice", "each shape peaks at 1 on the anchor"},
    {"Switch", "Input choice", "switch", ""},
    {"Flipper", "Flip Horizontally", "switch",
     "mirrors left-right: column x goes to column width - 1 - x"},
    {"Flipper", "Flip Vertically", "switch",
     "mirrors top-bottom: row y goes to row height - 1 - y"},
    {"Integer Equals", "Current Evaluation", "switch", "set by the device, read-only"},
    {"Integer Equals", "Comparison Value", "integer", ""},
    {"Combiner", "Method", "choice", ""},
    {"Combiner", "Strength", "fraction", ""},
    {"Overlay View", "Overlay Opacity", "fraction", ""},
    {"Overlay View", "Shading", "fraction", ""},
    {"Overlay View", "Write Output to Disk", "action", ""},
    {"Colorize", "Color #1", "colour", "the colour of height 0"},
    {"Colorize", "Color #2", "colour", "the colour of height 1"},
    {"Normal-Map Maker", "Encoding Type", "choice", "the normal's x, y, z as red, green, blue"},
    {"Normal-Map Maker", "Flip X", "switch",
     "off: a slope rising toward +x gives red below 0.5; on: above"},
    {"Normal-Map Maker", "Flip Y", "switch",
     "off: a slope rising toward +y gives green below 0.5; on: above"},
    {"Channel Splitter", "Channel Type", "choice",
     "the channels: red, green, blue or hue, saturation, brightness"},
    {"Channel Combiner", "Channel Type", "choice",
     "the channels: red, green, blue or hue, saturation, brightness"},
    {"Blur", "Blur type", "choice", ""},
    {"Blur", "Blur radius", "1/256 world unit",
     "while Scale-independant is on (at 256 samples per world unit, one sample); samples while "
     "off"},
    {"Blur", "Scale-independant", "switch", ""},
    {"Blur", "Direction", "degrees", "0 smears along x, 90 along y (both ways)"},
    {"Voronoi", "Scale", "world units", "per cell of the lattice"},
    {"Voronoi", "Style", "choice", ""},
    {"Voronoi", "Distance Function", "choice", ""},
    {"Voronoi", "Shape", "cells", "the lattice's third coordinate"},
    {"Voronoi", "Distortion Enable", "switch", "adds the input \"Distortion Map\""},
    {"Voronoi", "Distortion Amount", "cells",
     "the shift at a distortion height of 1, in cells of the lattice"},
    {"Voronoi", "Distortion Direction", "degrees", "0 shifts along +x, 90 along +y"},
    {"Voronoi", "Random Seed", "seed",
     "from the network's seed and the device's id when the file gives none and has a seed"},
    {"Voronoi", "Randomize", "action", ""},
    {"Snow", "Intensity", "fraction", "the snowfall of each pass"},
    {"Snow", "Evaporative Balance", "ratio", "evaporation per pass as a multiple of the snowfall"},
    {"Snow", "Snow Amount", "1/64 world unit", "of passes; a pass moves snow by one sample"},
    {"Snow", "Snow Line", "height", "below it snow melts"},
    {"Snow", "Linear Depthmask", "switch",
     "on: the mask is the snow depth; off: a logarithmic curve of it"},
    {"Snow", "Depthmask Cutoff", "factor",
     "the steepness of the logarithmic mask (off Linear Depthmask)"},
    {"Snow", "Taper Snowfall", "switch", "the snowfall grows from none on the first pass"},
    {"Coast Erosion", "Simulation Type", "choice", "one kind of simulation only"},
    {"Coast Erosion", "Use Global Water Level", "switch",
     "the network's globals.waterLevel instead of Water Level"},
    {"Coast Erosion", "Water Level", "height", "the sea's height"},
    {"Coast Erosion", "Beach Size", "height",
     "the height above the water over which the beach rises (x the Hardness Map)"},
    {"Coast Erosion", "Transition Zone", "choice", "the beach's profile"},
    {"Coast Erosion", "Transition Power", "fraction", "0..1, the strength of that profile"},
    {"Coast Erosion", "Smooth Underwater Features", "switch",
     "blurs the terrain under the water by Smoothing Amount"},
    {"Coast Erosion", "Smoothing Amount", "1/256 world unit", "the blur radius under water"},
    {"Checkpoint", "Number of Ports", "ports", "inputs and outputs each"},
    {"Select Color", "Color", "colour", ""},
    {"Select Color", "Tolerance", "colour distance",
     "0..1, the RGB distance / sqrt(3) of channels in 0..1"},
    {"Select Color", "Falloff", "colour distance", ""},
    {"Height Chooser", "Keep", "choice", "which of the two terrains each sample keeps"},
    {"Height Chooser", "Transition", "height", ""},
    {"Splat Converter", "Rock Angle", "degrees", "of slope, from the horizontal"},
    {"Splat Converter", "High Level", "height", ""},
    {"Splat Converter", "Transition", "fraction", ""},
    // Devices of the catalogue that other branches bring.
    {"Expander", "Low", "height", ""},
    {"Expander", "High", "height", ""},
    {"Equalizer", "Strength", "fraction", ""},
    {"Bias/Gain", "Bias", "fraction", ""},
    {"Bias/Gain", "Gain", "fraction", ""},
    {"Add Noise", "Amount", "height", ""},
    {"Add Noise", "Noise Type", "choice",
     "Uniform: evenly spread in -Amount..Amount; Gaussian: a bell curve cut at 3 deviations"},
    {"Add Noise", "Random Seed", "seed",
     "from the network's seed and the device's id when the file gives none and has a seed"},
    {"Add Noise", "Randomize", "action", ""},
    {"Ramp", "Start", "height", ""},
    {"Ramp", "End", "height", ""},
    {"Ramp", "Shape", "choice", "Linear: a straight ramp; Smooth: eased at both ends"},
    {"Height Splitter", "Split Height", "height", ""},
    {"Height Splitter", "Transition", "height", ""},
    {"Probability", "Density", "fraction", ""},
    {"Probability", "Spacing", "world units", ""},
    {"Probability", "Random Seed", "seed",
     "from the network's seed and the device's id when the file gives none and has a seed"},
    {"Probability", "Randomize", "action", ""},
    {"Select Angle", "Heading", "degrees", "0 faces +x (the description's North), 90 faces +y"},
    {"Select Angle", "Elevation", "degrees", ""},
    {"Select Convexity", "Strength", "factor", "how far a crest or hollow moves the mask from 0.5"},
    {"Light-Map Maker", "Illumination Model", "choice",
     "Direct Lighting: slopes only; Raytraced Lighting: slopes and cast shadows"},
    {"Light-Map Maker", "Included Lighting", "choice",
     "which terms add up: the shadow alone, the sky alone, or sun, shadow and sky"},
    {"Light-Map Maker", "Produce RGB Lightmap", "switch",
     "on: a bitmap tinted by the colours; off: grey"},
    {"Light-Map Maker", "Soft Clipping", "switch",
     "on: bright values ease towards 1 (1 - e^(-1.5 v)); off: cut at 1"},
    {"Light-Map Maker", "Use Global Light Direction", "switch",
     "the network's globals.lightDirection instead of Sun Heading and Sun Altitude"},
    {"Light-Map Maker", "Sun Heading", "degrees", "0 lights from +x, 90 from -y"},
    {"Light-Map Maker", "Sun Altitude", "degrees", "above the horizon"},
    {"Light-Map Maker", "Sky Lighting Level", "fraction", "the light from the whole sky"},
    {"Light-Map Maker", "Diffuse Level", "fraction", "the sun's direct light"},
    {"Light-Map Maker", "Sun Color", "colour", "the colour of the sun's light in an RGB light map"},
    {"Light-Map Maker", "Sky Color", "colour", "the colour of the sky's light in an RGB light map"},
};

}  // namespace

const ParameterUnit* FindParameterUnit(std::string_view typeName, std::string_view parameter) {
    for (const ParameterUnit& unit : kUnits)
        if (typeName == unit.type && parameter == unit.parameter) return &unit;
    return nullptr;
}

std::span<const ParameterUnit> ParameterUnits() {
    return kUnits;
}

std::string ParameterMeaning(const char* description, const ParameterUnit* unit) {
    std::string meaning = description ? description : "";
    std::string note = unit ? unit->note : "";
    if (note.empty()) return meaning;
    if (meaning.empty()) return note;
    if (meaning.back() != '.') return meaning + "; " + note;
    note[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(note[0])));
    return meaning + " " + note + ".";
}

}  // namespace orogen
