// The device types of the module, in catalogue order. Adding a device is one
// include and one row.
#include "plugin/Catalogue.h"

#include "devices/combiners/Combiner2.h"
#include "devices/combiners/HeightCombiner.h"
#include "devices/combiners/TrueCombiner.h"
#include "devices/converters/ChannelCombiner.h"
#include "devices/converters/ChannelSplitter.h"
#include "devices/converters/ColorGradient.h"
#include "devices/converters/LightMapMaker.h"
#include "devices/converters/NormalMaker.h"
#include "devices/converters/SplatMaker.h"
#include "devices/filters/AddNoise.h"
#include "devices/filters/BiasGain.h"
#include "devices/filters/Displacement.h"
#include "devices/filters/Equalizer.h"
#include "devices/filters/Expander.h"
#include "devices/filters/Flipper.h"
#include "devices/filters/GaussBlur.h"
#include "devices/filters/HeightSplitter.h"
#include "devices/filters/Inverter.h"
#include "devices/filters/ProbScatter.h"
#include "devices/filters/Ramp.h"
#include "devices/generators/CellularTex.h"
#include "devices/generators/CircularGrad.h"
#include "devices/generators/ConstantHeight.h"
#include "devices/generators/GradGen.h"
#include "devices/natural/CoastalErosion.h"
#include "devices/natural/SnowLevel.h"
#include "devices/output/OverlayOutput.h"
#include "devices/selectors/ConvexSelector.h"
#include "devices/selectors/SelectColor.h"
#include "devices/selectors/SelectFacing.h"
#include "devices/utility/CheckPoint.h"
#include "devices/utility/Equals.h"
#include "devices/utility/MultiChooser.h"
#include "devices/utility/MultiSwitch.h"
#include "devices/utility/Switch.h"

namespace basekit {

const CatalogueEntry kCatalogue[kCatalogueSize] = {
    /*  0 ConstantHeight  */ {&CreateDevice<ConstantHeight>, 1, 4, 0},
    /*  1 GradGen         */ {&CreateDevice<GradGen>, 1, 4, 0},
    /*  2 Inverter        */ {&CreateDevice<Inverter>, 4, 12, 0},
    /*  3 TrueCombiner    */ {&CreateDevice<TrueCombiner>, 3, 4, 1},
    /*  4 Displacement    */ {&CreateDevice<Displacement>, 4, 4, 0},
    /*  5 Ramp            */ {&CreateDevice<Ramp>, 4, 4, 0},
    /*  6 HeightSplitter  */ {&CreateDevice<HeightSplitter>, 4, 4, 0},
    /*  7 SelectFacing    */ {&CreateDevice<SelectFacing>, 6, 4, 0},
    /*  8 MultiSwitch     */ {&CreateDevice<MultiSwitch>, 7, 0, 0},
    /*  9 MultiChooser    */ {&CreateDevice<MultiChooser>, 7, 0, 0},
    /* 10 AddNoise        */ {&CreateDevice<AddNoise>, 4, 4, 0},
    /* 11 ProbScatter     */ {&CreateDevice<ProbScatter>, 4, 4, 0},
    /* 12 BiasGain        */ {&CreateDevice<BiasGain>, 4, 12, 0},
    /* 13 CircularGrad    */ {&CreateDevice<CircularGrad>, 1, 4, 0},
    /* 14 Switch          */ {&CreateDevice<Switch>, 7, 0, 0},
    /* 15 Flipper         */ {&CreateDevice<Flipper>, 4, 4, 0},
    /* 16 Equals          */ {&CreateDevice<Equals>, 17, 3, 0},
    /* 17 Equalizer       */ {&CreateDevice<Equalizer>, 4, 4, 0},
    /* 18 Combiner2       */ {&CreateDevice<Combiner2>, 3, 12, 0},
    /* 19 OverlayOutput   */ {&CreateDevice<OverlayOutput>, 2, 12, 0},
    /* 20 ConvexSelector  */ {&CreateDevice<ConvexSelector>, 6, 4, 0},
    /* 21 ColorGradient   */ {&CreateDevice<ColorGradient>, 9, 8, 1},
    /* 22 NormalMaker     */ {&CreateDevice<NormalMaker>, 9, 4, 0},
    /* 23 ChannelSplitter */ {&CreateDevice<ChannelSplitter>, 9, 8, 0},
    /* 24 ChannelCombiner */ {&CreateDevice<ChannelCombiner>, 9, 8, 0},
    /* 25 LightMapMaker   */ {&CreateDevice<LightMapMaker>, 9, 12, 0},
    /* 26 GaussBlur       */ {&CreateDevice<GaussBlur>, 4, 4, 0},
    /* 27 Expander        */ {&CreateDevice<Expander>, 4, 4, 0},
    /* 28 CellularTex     */ {&CreateDevice<CellularTex>, 1, 4, 0},
    /* 29 SnowLevel       */ {&CreateDevice<SnowLevel>, 5, 4, 0},
    /* 30 CoastalErosion  */ {&CreateDevice<CoastalErosion>, 5, 4, 0},
    /* 31 CheckPoint      */ {&CreateDevice<CheckPoint>, 7, 4, 0},
    /* 32 SelectColor     */ {&CreateDevice<SelectColor>, 6, 4, 0},
    /* 33 HeightCombiner  */ {&CreateDevice<HeightCombiner>, 3, 4, 0},
    /* 34 SplatMaker      */ {&CreateDevice<SplatMaker>, 9, 4, 0},
};

}  // namespace basekit
