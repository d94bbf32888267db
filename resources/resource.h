// Identifiers of the module's Windows resources, shared by the resource
// script and whoever looks the resources up.
#pragma once

// The toolbar strip: one 16x16 icon per catalogue entry, in catalogue order,
// as a 24-bit bitmap.
#define IDB_TOOLBAR_GFX 101
