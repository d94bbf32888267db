# Writes OUTPUT, a header defining the bytes of INPUT as kDemoNetworkText,
# so that the tool carries the file it was built from.
file(READ "${INPUT}" bytes HEX)
string(LENGTH "${bytes}" length)
math(EXPR count "${length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n    " bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT}; do not edit.\n#pragma once\n\n"
  "inline constexpr unsigned char kDemoNetworkText[] = {\n    ${bytes}0x00};\n"
  "inline constexpr unsigned long kDemoNetworkSize = ${count};\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
