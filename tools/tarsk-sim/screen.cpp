// The picture of the screen (screen.h). Windows are painted in creation order, each clipped to its
// parent's client area, in the classic colours (face 192 gray, shadow 128 gray, highlight white):
// - a program's window is filled with its class's stock brush (none: left as it was);
// - an EDIT control draws its border, its vertical scroll bar and its text, wrapped as a multi-line
//   edit wraps and scrolled to the end of the text, where EM_REPLACESEL leaves the caret (a
//   read-only edit is painted in the face colour, as the platform paints static text);
// - a BUTTON draws its border, a raised face and its text, placed by its BS_ alignment bits.
// A control without a font, or with one that no longer exists, uses the system font (12 pixels).
#include "screen.h"

#include <cairo-ft.h>
#include <cairo.h>
#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace tarsk_sim {

namespace {

const char *const kFontFiles[2] = {"/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
                                   "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf"};
constexpr int kLargestScreen = 8192;        // pixels a side
constexpr int kScrollBarWidth = 13;         // SM_CXVSCROLL
constexpr int kMinThumb = 8;
constexpr double kSystemFontPixels = 12;
constexpr DWORD kEsAutoHScroll = 0x0080;    // ES_AUTOHSCROLL: the edit scrolls sideways instead of wrapping
constexpr DWORD kBsHorizontal = 0x0300, kBsLeft = 0x0100, kBsRight = 0x0200;
constexpr DWORD kBsVertical = 0x0C00, kBsTop = 0x0400, kBsBottom = 0x0800;

struct Rgb {
    double r, g, b;
};
constexpr Rgb gray(int v) { return {v / 255.0, v / 255.0, v / 255.0}; }
constexpr Rgb kBlack = gray(0), kWhite = gray(255), kFace = gray(192), kShadow = gray(128);
// WHITE_BRUSH, LTGRAY_BRUSH, GRAY_BRUSH, DKGRAY_BRUSH, BLACK_BRUSH (NULL_BRUSH paints nothing).
constexpr Rgb kStockBrushes[] = {gray(255), gray(192), gray(128), gray(64), gray(0)};

struct Rect {
    int x, y, w, h;
    bool empty() const { return w <= 0 || h <= 0; }
    Rect inset(int d) const { return {x + d, y + d, w - 2 * d, h - 2 * d}; }
};

// The two DejaVu faces, loaded once for the process (and kept: cairo may hold on to them).
struct FontFiles {
    FT_Library library = nullptr;
    FT_Face faces[2] = {nullptr, nullptr};
    cairo_font_face_t *cairoFaces[2] = {nullptr, nullptr};
    std::string error;

    FontFiles() {
        if (FT_Init_FreeType(&library)) {
            error = "cannot start FreeType";
            return;
        }
        for (int i = 0; i < 2; ++i) {
            if (FT_New_Face(library, kFontFiles[i], 0, &faces[i])) {
                error = std::string("cannot load the font ") + kFontFiles[i] + " (install fonts-dejavu-core)";
                return;
            }
            cairoFaces[i] = cairo_ft_font_face_create_for_ft_face(faces[i], 0);
        }
    }
};
const FontFiles &fontFiles() {
    static const FontFiles files;
    return files;
}

// One font at one size: the line metrics and the glyphs of the characters, hinted to whole pixels as
// the device's renderer places them.
class Face {
public:
    Face(const FontFiles &files, const sim::Windows::FontInfo *font) {
        const int bold = font && font->weight >= 600 ? 1 : 0;   // FW_SEMIBOLD and heavier
        FT_Face ft = files.faces[bold];
        double pixels = kSystemFontPixels;
        if (font && font->height < 0) pixels = -double(font->height);   // the character height
        if (font && font->height > 0)                                    // the cell height
            pixels = font->height * double(ft->units_per_EM) / double(ft->ascender - ft->descender);
        pixels = std::clamp(pixels, 1.0, 512.0);
        cairo_matrix_t size, identity;
        cairo_matrix_init_scale(&size, pixels, pixels);
        cairo_matrix_init_identity(&identity);
        cairo_font_options_t *options = cairo_font_options_create();
        cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
        cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_FULL);
        cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_ON);
        m_font = cairo_scaled_font_create(files.cairoFaces[bold], &size, &identity, options);
        cairo_font_options_destroy(options);
        cairo_font_extents_t e;
        cairo_scaled_font_extents(m_font, &e);
        ascent = std::round(e.ascent);
        lineHeight = std::max(1, int(std::lround(e.ascent + e.descent)));
        m_tabStop = 8 * glyph(U'x').advance;
    }
    ~Face() { cairo_scaled_font_destroy(m_font); }
    Face(const Face &) = delete;
    Face &operator=(const Face &) = delete;

    cairo_scaled_font_t *font() const { return m_font; }
    // How far a character at x moves the pen: a tab to the next stop, other control characters not
    // at all.
    double advance(char32_t c, double x) {
        if (c == U'\t') return (std::floor(x / m_tabStop) + 1) * m_tabStop - x;
        return c < 0x20 ? 0 : glyph(c).advance;
    }
    unsigned long index(char32_t c) { return glyph(c).index; }

    double ascent = 0;
    int lineHeight = 1;

private:
    struct Glyph {
        unsigned long index;
        double advance;
    };
    const Glyph &glyph(char32_t c) {
        auto it = m_glyphs.find(c);
        if (it != m_glyphs.end()) return it->second;
        Glyph g = {0, 0};
        if (FT_Face ft = cairo_ft_scaled_font_lock_face(m_font)) {
            g.index = FT_Get_Char_Index(ft, c);   // 0, the missing-glyph box, when the font lacks it
            cairo_ft_scaled_font_unlock_face(m_font);
        }
        cairo_glyph_t cg = {g.index, 0, 0};
        cairo_text_extents_t e;
        cairo_scaled_font_glyph_extents(m_font, &cg, 1, &e);
        g.advance = e.x_advance;
        return m_glyphs.emplace(c, g).first->second;
    }

    cairo_scaled_font_t *m_font = nullptr;
    std::unordered_map<char32_t, Glyph> m_glyphs;
    double m_tabStop = 1;
};

std::u32string codePoints(const std::u16string &s) {
    std::u32string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        char32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] < 0xE000)
            c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        else if (c >= 0xD800 && c < 0xE000)
            c = 0xFFFD;   // a lone surrogate
        out.push_back(c);
    }
    return out;
}

// The lines of an edit's text, as [begin, end) ranges of it. "\r\n" ends a line of a multi-line edit;
// with wrap, a line also ends after the last blank that lets the next word fit in width, or, for a
// word longer than the line, before the first character that does not fit. Blanks at a break hang
// past the edge.
struct Line {
    size_t begin, end;
};
std::vector<Line> layoutLines(const std::u32string &text, Face &face, double width, bool multiline, bool wrap) {
    std::vector<Line> lines;
    size_t start = 0, i = 0, brk = 0;   // brk: where the line may break, after a blank (0: nowhere yet)
    double x = 0;
    while (i < text.size()) {
        const char32_t c = text[i];
        if (multiline && c == U'\r' && i + 1 < text.size() && text[i + 1] == U'\n') {
            lines.push_back({start, i});
            start = i += 2;
            x = 0;
            brk = 0;
            continue;
        }
        const double w = face.advance(c, x);
        const bool blank = c == U' ' || c == U'\t';
        if (wrap && !blank && x + w > width && i > start) {
            const size_t end = brk > start ? brk : i;
            lines.push_back({start, end});
            start = i = end;
            x = 0;
            brk = 0;
            continue;
        }
        x += w;
        if (blank) brk = i + 1;
        ++i;
    }
    lines.push_back({start, text.size()});
    return lines;
}

class Painter {
public:
    Painter(cairo_t *cr, const ScreenState &state) : m_cr(cr), m_state(state) {}

    void paint() {
        for (size_t i = 0; i < m_state.windows.size(); ++i) {
            const auto &w = m_state.windows[i];
            Rect rect, clip;
            if (!place(i, rect, clip, 0)) continue;
            cairo_save(m_cr);
            cairo_rectangle(m_cr, clip.x, clip.y, clip.w, clip.h);
            cairo_clip(m_cr);
            if (sim::lower(w.className) == "edit") edit(w, rect);
            else if (sim::lower(w.className) == "button") button(w, rect);
            else if (w.stockBrush >= 0 && w.stockBrush < int(std::size(kStockBrushes)))
                fill(rect, kStockBrushes[w.stockBrush]);
            cairo_restore(m_cr);
        }
    }

private:
    // A window's place on the screen and the part of it that shows (its parents' client areas);
    // false when it is not shown (hidden, or a parent is hidden or unknown).
    bool place(size_t i, Rect &rect, Rect &clip, int depth) const {
        const auto &w = m_state.windows[i];
        if (!(w.style & WS_VISIBLE) || depth > 32 || w.width <= 0 || w.height <= 0) return false;
        int ox = 0, oy = 0;
        clip = {0, 0, m_state.width, m_state.height};
        if (w.parent) {
            size_t p = 0;
            while (p < m_state.windows.size() && m_state.windows[p].hwnd != w.parent) ++p;
            Rect prect;
            if (p == m_state.windows.size() || !place(p, prect, clip, depth + 1)) return false;
            const Rect client = clientOf(m_state.windows[p], prect);
            clip = intersect(clip, client);
            ox = client.x;
            oy = client.y;
        }
        rect = {clampCoord(int64_t(ox) + w.x), clampCoord(int64_t(oy) + w.y), w.width, w.height};
        clip = intersect(clip, rect);
        return !clip.empty();
    }
    static int clampCoord(int64_t v) { return int(std::clamp<int64_t>(v, -(1 << 20), 1 << 20)); }
    static Rect clientOf(const sim::Windows::WindowInfo &w, const Rect &rect) {
        return (w.style & WS_BORDER) ? rect.inset(1) : rect;
    }
    static Rect intersect(const Rect &a, const Rect &b) {
        const int64_t x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
        const int64_t x1 = std::min(int64_t(a.x) + a.w, int64_t(b.x) + b.w);
        const int64_t y1 = std::min(int64_t(a.y) + a.h, int64_t(b.y) + b.h);
        return {int(x0), int(y0), int(std::max<int64_t>(0, x1 - x0)), int(std::max<int64_t>(0, y1 - y0))};
    }

    const sim::Windows::FontInfo *fontOf(const sim::Windows::WindowInfo &w) const {
        for (const auto &f : m_state.fonts)
            if (f.handle == w.font && w.font) return &f;
        return nullptr;
    }

    void fill(const Rect &r, const Rgb &c) {
        if (r.empty()) return;
        cairo_set_source_rgb(m_cr, c.r, c.g, c.b);
        cairo_rectangle(m_cr, r.x, r.y, r.w, r.h);
        cairo_fill(m_cr);
    }
    void frame(const Rect &r, const Rgb &c) {
        fill({r.x, r.y, r.w, 1}, c);
        fill({r.x, r.y + r.h - 1, r.w, 1}, c);
        fill({r.x, r.y, 1, r.h}, c);
        fill({r.x + r.w - 1, r.y, 1, r.h}, c);
    }
    // A raised face: the outer edge light above and left, black below and right; the inner edge
    // white and shadow gray.
    void raised(const Rect &r) {
        fill(r, kFace);
        const Rect in = r.inset(1);
        fill({r.x, r.y + r.h - 1, r.w, 1}, kBlack);
        fill({r.x + r.w - 1, r.y, 1, r.h}, kBlack);
        if (in.empty()) return;
        fill({in.x, in.y, in.w - 1, 1}, kWhite);
        fill({in.x, in.y, 1, in.h - 1}, kWhite);
        fill({in.x, in.y + in.h - 1, in.w, 1}, kShadow);
        fill({in.x + in.w - 1, in.y, 1, in.h}, kShadow);
    }
    // A scroll arrow in the middle of a raised square: rows 1, 3, 5, ... pixels wide; a disabled
    // one is shadow gray over a white copy one pixel lower right.
    void arrow(const Rect &r, bool up, bool enabled) {
        raised(r);
        const int rows = std::max(1, std::min(r.w, r.h) / 3);
        const int cx = r.x + r.w / 2, top = r.y + (r.h - rows) / 2;
        for (int pass = enabled ? 1 : 0; pass < 2; ++pass) {
            const int d = pass == 0 ? 1 : 0;
            for (int k = 0; k < rows; ++k) {
                const int half = up ? k : rows - 1 - k;
                fill({cx - half + d, top + k + d, 2 * half + 1, 1}, pass == 0 ? kWhite : enabled ? kBlack : kShadow);
            }
        }
    }
    // The track's halftone: white and face pixels alternating.
    void halftone(const Rect &r) {
        if (r.empty()) return;
        cairo_surface_t *tile = cairo_image_surface_create(CAIRO_FORMAT_RGB24, 2, 2);
        cairo_surface_flush(tile);
        unsigned char *data = cairo_image_surface_get_data(tile);
        const int stride = cairo_image_surface_get_stride(tile);
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 2; ++x)
                reinterpret_cast<uint32_t *>(data + y * stride)[x] = (x + y) % 2 ? 0xC0C0C0 : 0xFFFFFF;
        cairo_surface_mark_dirty(tile);
        cairo_pattern_t *pattern = cairo_pattern_create_for_surface(tile);
        cairo_pattern_set_extend(pattern, CAIRO_EXTEND_REPEAT);
        cairo_pattern_set_filter(pattern, CAIRO_FILTER_NEAREST);
        cairo_set_source(m_cr, pattern);
        cairo_rectangle(m_cr, r.x, r.y, r.w, r.h);
        cairo_fill(m_cr);
        cairo_pattern_destroy(pattern);
        cairo_surface_destroy(tile);
    }
    // The vertical scroll bar: arrows at both ends, the thumb placed by the first line shown. With
    // nothing to scroll it is drawn disabled, without a thumb.
    void scrollBar(const Rect &r, size_t first, size_t shown, size_t total) {
        const int a = std::min(r.w, r.h / 2);   // an arrow button's height
        const bool enabled = total > shown;
        arrow({r.x, r.y, r.w, a}, true, enabled);
        arrow({r.x, r.y + r.h - a, r.w, a}, false, enabled);
        const Rect track = {r.x, r.y + a, r.w, r.h - 2 * a};
        halftone(track);
        if (!enabled || track.h < kMinThumb) return;
        const int thumb = std::clamp(int(int64_t(track.h) * shown / total), kMinThumb, track.h);
        const int at = int(int64_t(track.h - thumb) * first / (total - shown));
        raised({track.x, track.y + at, track.w, thumb});
    }

    void text(Face &face, const std::u32string &s, const Line &line, double left, double top) {
        std::vector<cairo_glyph_t> glyphs;
        double x = 0;
        for (size_t i = line.begin; i < line.end; ++i) {
            if (s[i] >= 0x20) glyphs.push_back({face.index(s[i]), left + x, top + face.ascent});
            x += face.advance(s[i], x);
        }
        if (glyphs.empty()) return;
        cairo_set_scaled_font(m_cr, face.font());
        cairo_set_source_rgb(m_cr, 0, 0, 0);
        cairo_show_glyphs(m_cr, glyphs.data(), int(glyphs.size()));
    }

    void edit(const sim::Windows::WindowInfo &w, const Rect &rect) {
        if (w.style & WS_BORDER) frame(rect, kBlack);
        Rect client = clientOf(w, rect);
        if (client.empty()) return;
        Rect area = client;
        if (w.style & WS_VSCROLL) area.w -= std::min(kScrollBarWidth, client.w);
        fill(area, (w.style & ES_READONLY) ? kFace : kWhite);
        const bool multiline = (w.style & ES_MULTILINE) != 0;
        Face face(fontFiles(), fontOf(w));
        const std::u32string s = codePoints(w.text);
        const std::vector<Line> lines =
            layoutLines(s, face, area.w - 2, multiline, multiline && !(w.style & kEsAutoHScroll));
        const size_t shown = std::max<size_t>(1, size_t(std::max(0, area.h)) / face.lineHeight);
        const size_t first = lines.size() > shown ? lines.size() - shown : 0;   // the caret's line at the bottom
        if (w.style & WS_VSCROLL) scrollBar({area.x + area.w, client.y, client.w - area.w, client.h}, first, shown,
                                            lines.size());
        if (area.empty()) return;
        cairo_save(m_cr);
        cairo_rectangle(m_cr, area.x, area.y, area.w, area.h);
        cairo_clip(m_cr);
        for (size_t i = first; i < lines.size() && int64_t(i - first) * face.lineHeight < area.h; ++i)
            text(face, s, lines[i], area.x + 1, area.y + double(i - first) * face.lineHeight);
        cairo_restore(m_cr);
    }

    void button(const sim::Windows::WindowInfo &w, const Rect &rect) {
        if (w.style & WS_BORDER) frame(rect, kBlack);
        const Rect client = clientOf(w, rect);
        if (client.empty()) return;
        raised(client);
        const Rect area = client.inset(3);
        if (area.empty()) return;
        Face face(fontFiles(), fontOf(w));
        const std::u32string s = codePoints(w.text);
        const Line line = layoutLines(s, face, 0, false, false).front();
        double width = 0;
        for (char32_t c : s) width += face.advance(c, width);
        double x = area.x + (area.w - width) / 2, y = area.y + (area.h - face.lineHeight) / 2;
        if ((w.style & kBsHorizontal) == kBsLeft) x = area.x;
        if ((w.style & kBsHorizontal) == kBsRight) x = area.x + area.w - width;
        if ((w.style & kBsVertical) == kBsTop) y = area.y;
        if ((w.style & kBsVertical) == kBsBottom) y = area.y + area.h - face.lineHeight;
        cairo_save(m_cr);
        cairo_rectangle(m_cr, area.x, area.y, area.w, area.h);
        cairo_clip(m_cr);
        text(face, s, line, std::round(x), std::round(y));
        cairo_restore(m_cr);
    }

    cairo_t *m_cr;
    const ScreenState &m_state;
};

cairo_status_t appendPng(void *closure, const unsigned char *data, unsigned int length) {
    static_cast<std::string *>(closure)->append(reinterpret_cast<const char *>(data), length);
    return CAIRO_STATUS_SUCCESS;
}

}  // namespace

ScreenState screenState(const sim::Windows &wm) {
    return {wm.screenWidth(), wm.screenHeight(), wm.screen(), wm.fonts()};
}

std::string screenPng(const ScreenState &state, std::string &error) {
    if (state.width < 1 || state.height < 1 || state.width > kLargestScreen || state.height > kLargestScreen) {
        error = "the screen is " + std::to_string(state.width) + " x " + std::to_string(state.height) +
                " pixels; 1 to " + std::to_string(kLargestScreen) + " a side are drawn";
        return {};
    }
    const FontFiles &files = fontFiles();
    if (!files.error.empty()) {
        error = files.error;
        return {};
    }
    cairo_surface_t *surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, state.width, state.height);
    cairo_t *cr = cairo_create(surface);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);   // shapes on whole pixels; text keeps its own
    cairo_set_source_rgb(cr, 0, 0, 0);               // the screen before anything is drawn
    cairo_paint(cr);
    Painter(cr, state).paint();
    std::string png;
    cairo_status_t status = cairo_status(cr);
    if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_write_to_png_stream(surface, appendPng, &png);
    cairo_destroy(cr);
    cairo_surface_destroy(surface);
    if (status != CAIRO_STATUS_SUCCESS) {
        error = std::string("cannot draw the screen: ") + cairo_status_to_string(status);
        return {};
    }
    return png;
}

}  // namespace tarsk_sim
