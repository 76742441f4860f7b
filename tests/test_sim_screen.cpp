// The picture of the screen: its structure (size, the panel's frame, the reboot button over the
// panel's last rows, the gray gap beside the button, where text lies, the scroll bar's thumb), from
// whole runs of the built tarsk-sim and from the drawing function alone. No golden images.
#include "screen.h"
#include "tarsk_engine_helpers.h"

#include <cairo.h>
#include <gtest/gtest.h>

namespace {

using namespace tool_test;

const std::string kSim = TARSK_BINARY_DIR "/tarsk-sim";

// A decoded PNG: the red channel is enough, everything drawn is gray.
struct Picture {
    int width = 0, height = 0;
    std::vector<int> red;
    int at(int x, int y) const { return red[size_t(y) * width + x]; }
    bool dark(int x, int y) const { return at(x, y) < 80; }
    bool rowIs(int y, int x0, int x1, int v) const {
        for (int x = x0; x < x1; ++x)
            if (at(x, y) != v) return false;
        return true;
    }
    // The runs of rows [y0, y1) holding a dark pixel in columns [x0, x1).
    std::vector<std::pair<int, int>> darkBands(int x0, int x1, int y0, int y1) const {
        std::vector<std::pair<int, int>> bands;
        for (int y = y0; y < y1; ++y) {
            bool any = false;
            for (int x = x0; x < x1 && !any; ++x) any = dark(x, y);
            if (!any) continue;
            if (!bands.empty() && bands.back().second == y) bands.back().second = y + 1;
            else bands.push_back({y, y + 1});
        }
        return bands;
    }
};

Picture decode(const std::string &png) {
    struct Reader {
        const std::string &s;
        size_t at;
    } reader{png, 0};
    cairo_surface_t *s = cairo_image_surface_create_from_png_stream(
        [](void *c, unsigned char *data, unsigned int n) {
            auto *r = static_cast<Reader *>(c);
            if (r->s.size() - r->at < n) return CAIRO_STATUS_READ_ERROR;
            std::memcpy(data, r->s.data() + r->at, n);
            r->at += n;
            return CAIRO_STATUS_SUCCESS;
        },
        &reader);
    Picture p;
    if (cairo_surface_status(s) == CAIRO_STATUS_SUCCESS) {
        p.width = cairo_image_surface_get_width(s);
        p.height = cairo_image_surface_get_height(s);
        const unsigned char *data = cairo_image_surface_get_data(s);
        for (int y = 0; y < p.height; ++y)
            for (int x = 0; x < p.width; ++x)
                p.red.push_back(int((reinterpret_cast<const uint32_t *>(data + y * cairo_image_surface_get_stride(s))[x] >> 16) & 0xFF));
    }
    cairo_surface_destroy(s);
    return p;
}

// The scroll bar's track shows its halftone at row y (no thumb there).
bool halftoneAt(const Picture &p, int y) {
    const int x = p.width - 8;   // in the bar, right of the panel's text
    return p.at(x, y) != p.at(x + 1, y);
}

}  // namespace

// Cancelled boots (no package) draw the panel and the reboot button over its last two rows; a boot
// held by the battery rule draws the panel alone. --screen-at pictures an earlier moment.
TEST(SimScreen, BootsAsDrawn) {
    const std::string base = "[device]\nprogram = '\\My Flash Disk\\tarsk.exe'\n";
    const std::string held = "[power]\nac_line = 0\nbattery_percent = 19\n";
    const std::string chargerLater = held + "[[power.events]]\nat_ms = 5000\ntype = 'status'\nac_line = 1\n";
    // textEnd: the text's rows end above this share of the panel (in percent).
    struct Row { const char *name; int w, h; std::string tables, args, file; bool button; int textEnd; } rows[] = {
        {"320 x 240, cancelled", 320, 240, "", "", "screen.png", true, 60},
        {"480 x 272, cancelled", 480, 272, "", "", "screen.png", true, 60},
        {"800 x 480, cancelled", 800, 480, "", "", "screen.png", true, 60},
        {"held by the battery, no button", 480, 272, held, "--timeout 2", "screen.png", false, 40},
        {"before the charger came", 320, 240, chargerLater, "--screen-at 1000", "screen-at-1000.png", false, 40},
        {"after it", 320, 240, chargerLater, "--screen-at 1000", "screen.png", true, 85},
        {"after the run", 320, 240, "", "--screen-at 900000", "", false, 0},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        const fs::path device = tempFolder("tarsk-screen");
        std::ofstream(device / "device.toml") << base << "[screen]\nwidth = " << row.w << "\nheight = " << row.h
                                              << "\n" << row.tables;
        run(kSim + " run " + quote(device.string()) + " " + row.args, device / "out", device / "err");
        if (row.file.empty()) {
            EXPECT_NE(slurp(device / "out").find("screen at 900000 ms: not reached"), std::string::npos);
            EXPECT_FALSE(fs::exists(device / "run" / "screen-at-900000.png"));
            fs::remove_all(device);
            continue;
        }
        const Picture p = decode(slurp(device / "run" / row.file));
        ASSERT_EQ(p.width, row.w) << slurp(device / "out") << slurp(device / "err");
        ASSERT_EQ(p.height, row.h);
        const int W = row.w, H = row.h;
        EXPECT_TRUE(p.rowIs(0, 0, W, 0)) << "the panel's top border";
        for (int y = 0; y < H - 30; ++y) ASSERT_TRUE(p.dark(0, y) && p.dark(W - 1, y)) << "side borders, row " << y;
        if (row.button) {
            EXPECT_TRUE(p.rowIs(H - 32, 2, W, 0)) << "the button's top edge";
            EXPECT_TRUE(p.rowIs(H - 31, 0, 3, 0)) << "the panel's bottom border left of the button";
            EXPECT_FALSE(p.rowIs(H - 31, 3, W - 1, 0)) << "the button lies over the panel's bottom border";
            for (int y = H - 30; y < H; ++y) ASSERT_TRUE(p.rowIs(y, 0, 2, 128)) << "the gap beside the button, row " << y;
            EXPECT_FALSE(p.darkBands(3, W - 1, H - 30, H).empty()) << "the button's text";
        } else {
            EXPECT_TRUE(p.rowIs(H - 31, 0, W, 0)) << "the panel's bottom border";
            for (int y = H - 30; y < H; ++y) ASSERT_TRUE(p.rowIs(y, 0, W, 128)) << "the main window, row " << y;
        }
        // Short text: the first line at the top, nothing in the panel's lower part.
        const auto bands = p.darkBands(1, W - 15, 1, H - 32);
        ASSERT_FALSE(bands.empty());
        EXPECT_LT(bands.front().first, 8);
        EXPECT_LT(bands.back().second, (H - 32) * row.textEnd / 100);
        EXPECT_TRUE(halftoneAt(p, H / 2)) << "nothing to scroll: no thumb";
        if (!HasFailure()) fs::remove_all(device);
    }
}

// The drawing function on its own: the main window and the panel of a 480 x 272 screen with the
// program's font (12 pixels) and various texts.
TEST(SimScreen, PanelText) {
    const int W = 480, H = 272;
    const HWND main = HWND(uintptr_t(0x100)), panel = HWND(uintptr_t(0x104));
    const HFONT font = HFONT(uintptr_t(0x200));
    std::u16string many;
    for (int i = 0; i < 60; ++i) many += u"line " + testing_support::W(std::to_string(i)) + u"\r\n";
    struct Row { const char *name; std::u16string text; size_t minBands, maxBands; bool blankLine, atBottom; } rows[] = {
        {"one line", u"one line\r\n", 1, 1, false, false},
        {"an empty line between two", u"first\r\n\r\nthird", 2, 2, true, false},
        {"a word longer than the line breaks", std::u16string(150, u'W'), 2, 5, false, false},
        {"words wrap at blanks", [] { std::u16string s; for (int i = 0; i < 40; ++i) s += u"word "; return s; }(), 2, 5,
         false, false},
        {"taller than the panel: scrolled to the end", many + u"LAST", 10, 20, false, true},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        tarsk_sim::ScreenState state;
        state.width = W;
        state.height = H;
        state.windows = {{main, nullptr, "TARSK_UPGRADE_CLS", u"", WS_VISIBLE, 0, 0, W, H, nullptr, GRAY_BRUSH},
                         {panel, main, "EDIT", row.text, 0x50A01804, 0, 0, W, H - 30, font, -1}};
        state.fonts = {{font, u"Tahoma", -12, 400, false}};
        std::string error;
        const Picture p = decode(tarsk_sim::screenPng(state, error));
        ASSERT_EQ(p.width, W) << error;
        const auto bands = p.darkBands(1, W - 15, 1, H - 31);
        ASSERT_GE(bands.size(), row.minBands);
        EXPECT_LE(bands.size(), row.maxBands);
        EXPECT_LT(bands.front().first, 8) << "the first line shown at the top";
        if (row.blankLine) {
            ASSERT_GT(bands[1].first - bands[0].second, bands[0].second - bands[0].first);
        }
        EXPECT_EQ(H - 31 - bands.back().second < 20, row.atBottom) << "the last line at the bottom";
        EXPECT_TRUE(halftoneAt(p, 20)) << "the track's top";
        EXPECT_NE(halftoneAt(p, H - 50), row.atBottom) << "the thumb at the track's bottom";
    }

    tarsk_sim::ScreenState bad;
    for (auto [w, h] : {std::pair{0, 10}, {10, 0}, {9000, 10}}) {
        bad.width = w;
        bad.height = h;
        std::string error;
        EXPECT_TRUE(tarsk_sim::screenPng(bad, error).empty());
        EXPECT_NE(error.find("8192 a side"), std::string::npos) << error;
    }
}
