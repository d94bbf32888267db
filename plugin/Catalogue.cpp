// The device types of the module, in catalogue order. Adding a device is one
// include and one row.
#include "plugin/Catalogue.h"

#include "devices/combiners/Combiner2.h"
#include "devices/combiners/TrueCombiner.h"
#include "devices/converters/ChannelCombiner.h"
#include "devices/converters/ChannelSplitter.h"
#include "devices/converters/ColorGradient.h"
#include "devices/converters/LightMapMaker.h"
#include "devices/converters/NormalMaker.h"
#include "devices/filters/Displacement.h"
#include "devices/filters/Flipper.h"
#include "devices/filters/GaussBlur.h"
#include "devices/filters/Inverter.h"
#include "devices/generators/CellularTex.h"
#include "devices/generators/CircularGrad.h"
#include "devices/generators/ConstantHeight.h"
#include "devices/generators/GradGen.h"
#include "devices/natural/CoastalErosion.h"
#include "devices/natural/SnowLevel.h"
#include "devices/selectors/ConvexSelector.h"
#include "devices/selectors/SelectFacing.h"

namespace basekit {

const CatalogueEntry kCatalogue[kCatalogueSize] = {
    /*  0 ConstantHeight  */ {&CreateDevice<ConstantHeight>, 1, 4, 0},
    /*  1 GradGen         */ {&CreateDevice<GradGen>, 1, 4, 0},
    /*  2 Inverter        */ {&CreateDevice<Inverter>, 4, 12, 0},
    /*  3 TrueCombiner    */ {&CreateDevice<TrueCombiner>, 3, 4, 1},
    /*  4 Displacement    */ {&CreateDevice<Displacement>, 4, 4, 0},
    /*  5 Ramp            */ {nullptr, 4, 4, 0},
    /*  6 HeightSplitter  */ {nullptr, 4, 4, 0},
    /*  7 SelectFacing    */ {&CreateDevice<SelectFacing>, 6, 4, 0},
    /*  8 MultiSwitch     */ {nullptr, 7, 0, 0},
    /*  9 MultiChooser    */ {nullptr, 7, 0, 0},
    /* 10 AddNoise        */ {nullptr, 4, 4, 0},
    /* 11 ProbScatter     */ {nullptr, 4, 4, 0},
    /* 12 BiasGain        */ {nullptr, 4, 12, 0},
    /* 13 CircularGrad    */ {&CreateDevice<CircularGrad>, 1, 4, 0},
    /* 14 Switch          */ {nullptr, 7, 0, 0},
    /* 15 Flipper         */ {&CreateDevice<Flipper>, 4, 4, 0},
    /* 16 Equals          */ {nullptr, 17, 3, 0},
    /* 17 Equalizer       */ {nullptr, 4, 4, 0},
    /* 18 Combiner2       */ {&CreateDevice<Combiner2>, 3, 12, 0},
    /* 19 OverlayOutput   */ {nullptr, 2, 12, 0},
    /* 20 ConvexSelector  */ {&CreateDevice<ConvexSelector>, 6, 4, 0},
    /* 21 ColorGradient   */ {&CreateDevice<ColorGradient>, 9, 8, 1},
    /* 22 NormalMaker     */ {&CreateDevice<NormalMaker>, 9, 4, 0},
    /* 23 ChannelSplitter */ {&CreateDevice<ChannelSplitter>, 9, 8, 0},
    /* 24 ChannelCombiner */ {&CreateDevice<ChannelCombiner>, 9, 8, 0},
    /* 25 LightMapMaker   */ {&CreateDevice<LightMapMaker>, 9, 12, 0},
    /* 26 GaussBlur       */ {&CreateDevice<GaussBlur>, 4, 4, 0},
    /* 27 Expander        */ {nullptr, 4, 4, 0},
    /* 28 CellularTex     */ {&CreateDevice<CellularTex>, 1, 4, 0},
    /* 29 SnowLevel       */ {&CreateDevice<SnowLevel>, 5, 4, 0},
    /* 30 CoastalErosion  */ {&CreateDevice<CoastalErosion>, 5, 4, 0},
    /* 31 CheckPoint      */ {nullptr, 7, 4, 0},
    /* 32 SelectColor     */ {nullptr, 6, 4, 0},
    /* 33 HeightCombiner  */ {nullptr, 3, 4, 0},
    /* 34 SplatMaker      */ {nullptr, 9, 4, 0},
};

}  // namespace basekit
