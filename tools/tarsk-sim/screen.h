// The picture of the simulated device's screen: the program's windows drawn as the device draws
// them, from the window manager's state (sim/windows.h), into a PNG image of exactly the screen's
// size. Text is set in DejaVu Sans (the device's Tahoma is not packaged for Debian), from the font
// files themselves so that the picture does not depend on the workstation's font configuration.
#pragma once

#include "windows.h"

#include <string>
#include <vector>

namespace tarsk_sim {

// What the picture is drawn from.
struct ScreenState {
    int width = 0, height = 0;
    std::vector<sim::Windows::WindowInfo> windows;   // in creation order: a later window lies over an earlier one
    std::vector<sim::Windows::FontInfo> fonts;       // every font made (a window names its font by handle)
};
ScreenState screenState(const sim::Windows &wm);

// The screen as PNG bytes; empty, with error set, when it cannot be drawn (a missing font file, a
// screen too large to draw).
std::string screenPng(const ScreenState &state, std::string &error);

}  // namespace tarsk_sim
