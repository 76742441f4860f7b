// The window manager of the simulated device: classes, windows, message queues, the EDIT and BUTTON
// controls, stock objects and fonts. See windows.h for the profile, the journal and the locking.
#include "windows.h"

#include "kernel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace sim {

namespace {

constexpr DWORD kErrorInvalidWindowHandle = 1400;
constexpr DWORD kErrorChildWithoutParent = 1406;   // ERROR_TLW_WITH_WSCHILD
constexpr DWORD kErrorCannotFindClass = 1407;
constexpr DWORD kErrorClassAlreadyExists = 1410;
constexpr DWORD kStylePopup = 0x80000000u;          // WS_POPUP
constexpr UINT kEnMaxText = 0x0501;                 // EN_MAXTEXT

// An edit control takes at most 30,000 characters until EM_LIMITTEXT changes it; EM_LIMITTEXT(0)
// gives 0xFFFF (multi-line) or 0x7FFE (single-line), and no limit is above 0x7FFFFFFE (multi-line)
// or 0x7FFE (single-line).
constexpr size_t kEditDefaultLimit = 30000;

// Handles of this part lie far above the kernel's object handles (which count up from 0x1000).
constexpr uintptr_t kWindowBase = 0x40000000;
constexpr uintptr_t kFontBase = 0x50000000;
constexpr uintptr_t kStockBase = 0x5F000000;
constexpr size_t kGoneKept = 64;   // destroyed windows kept for screen()

// The record WM_CREATE carries in lParam (CREATESTRUCTW).
struct CreateStruct {
    LPVOID lpCreateParams;
    HINSTANCE hInstance;
    HMENU hMenu;
    HWND hwndParent;
    int cy, cx, y, x;
    LONG style;
    LPCWSTR lpszName;
    LPCWSTR lpszClass;
    DWORD dwExStyle;
};

// The stock objects of the platform: brushes 0-5, pens 6-8, SYSTEM_FONT, DEFAULT_PALETTE.
bool isStockIndex(int i) { return (i >= 0 && i <= 8) || i == SYSTEM_FONT || i == 15; }

std::string classKey(const std::u16string &name) { return lower(utf8(name)); }

// WM_GETTEXT: at most max - 1 characters and a terminator; the count copied.
LRESULT copyText(const std::u16string &text, WPARAM max, LPARAM buffer) {
    WCHAR *out = reinterpret_cast<WCHAR *>(buffer);
    if (!out || max == 0) return 0;
    size_t n = std::min<size_t>(text.size(), size_t(max) - 1);
    std::copy(text.begin(), text.begin() + n, out);
    out[n] = 0;
    return LRESULT(n);
}

int screenKey(const toml::table *t, const char *key, int fallback) {
    if (!t) return fallback;
    const toml::node *n = t->get(key);
    if (!n) return fallback;
    auto v = n->value<int64_t>();
    if (!n->is_integer() || !v || *v < 1 || *v > 0xFFFF)
        badProfile(std::string("screen.") + key, "must be a number of pixels from 1 to 65535");
    return int(*v);
}

const toml::table *tableOf(const toml::table &profile, const char *name) {
    const toml::node *n = profile.get(name);
    if (!n) return nullptr;
    if (!n->as_table()) badProfile(name, "must be a table");
    return n->as_table();
}

LRESULT CALLBACK editProcedure(HWND h, UINT m, WPARAM w, LPARAM l) { return dev().windows().editProc(h, m, w, l); }
LRESULT CALLBACK buttonProcedure(HWND h, UINT m, WPARAM w, LPARAM l) { return dev().windows().buttonProc(h, m, w, l); }

}  // namespace

struct Windows::Class {
    std::u16string name;
    WNDPROC proc;
    ATOM atom;
    int stockBrush = -1;   // the background brush, when a stock brush
};

struct Windows::Window {
    // Fixed at creation.
    HWND hwnd = nullptr;
    std::shared_ptr<Class> cls;
    std::thread::id owner;
    HWND parent = nullptr;
    WORD id = 0;                       // a child's control identifier
    DWORD created = 0;                 // the style it was created with
    // Under m_mutex.
    std::u16string text;
    DWORD style = 0;
    int x = 0, y = 0, width = 0, height = 0;
    HFONT font = nullptr;
    bool destroying = false;
    size_t selStart = 0, selEnd = 0;   // an EDIT control's selection; the caret is at selEnd
    size_t limit = kEditDefaultLimit;
};

struct Windows::Sent {
    HWND hwnd;
    UINT msg;
    WPARAM wParam;
    LPARAM lParam;
    LRESULT result = 0;
    bool done = false;
};

struct Windows::Queue {
    std::deque<MSG> posted;
    std::deque<std::shared_ptr<Sent>> sent;   // from other threads, waiting for this thread
    bool quit = false;                        // PostQuitMessage was called
    int quitCode = 0;
};

// ---------------------------------------------------------------- the part

Windows::Windows(Device &dev, const toml::table &profile) : m_dev(dev), m_nextWindow(kWindowBase) {
    const toml::table *screen = tableOf(profile, "screen");
    m_screenWidth = screenKey(screen, "width", 480);
    m_screenHeight = screenKey(screen, "height", 272);
    if (const toml::table *input = tableOf(profile, "input")) {
        if (const toml::node *n = input->get("press_button_at_ms")) {
            auto v = n->value<int64_t>();
            if (!n->is_integer() || !v || *v < 0) badProfile("input.press_button_at_ms", "must be a device time in ms, 0 or more");
            m_dev.clock().at(uint64_t(*v), [this] { pressButtonLocked(); });
        }
    }
    for (const char16_t *name : {u"EDIT", u"BUTTON"}) {
        auto c = std::make_shared<Class>();
        c->name = name;
        c->proc = name[0] == u'E' ? editProcedure : buttonProcedure;
        c->atom = m_nextAtom++;
        m_classes[classKey(c->name)] = c;
    }
}

Windows::~Windows() = default;

std::u16string Windows::panelText() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_panel ? m_panel->text : std::u16string();
}

Windows::WindowInfo Windows::infoOf(const Window &w) {
    return {w.hwnd, w.parent, utf8(w.cls->name), w.text, w.style, w.x, w.y, w.width, w.height, w.font,
            w.cls->stockBrush};
}

std::vector<Windows::WindowInfo> Windows::windows() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<WindowInfo> out;
    for (const auto &[h, w] : m_windows) out.push_back(infoOf(*w));
    return out;
}

std::vector<Windows::WindowInfo> Windows::screen() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<WindowInfo> out;
    for (const auto &[h, w] : m_windows) out.push_back(infoOf(*w));
    out.insert(out.end(), m_gone.begin(), m_gone.end());
    // Handles only grow, so their order is the order of creation.
    std::stable_sort(out.begin(), out.end(), [](const WindowInfo &a, const WindowInfo &b) {
        return reinterpret_cast<uintptr_t>(a.hwnd) < reinterpret_cast<uintptr_t>(b.hwnd);
    });
    return out;
}

std::vector<Windows::FontInfo> Windows::fonts() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fonts;
}

std::shared_ptr<Windows::Window> Windows::find(HWND hwnd) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_windows.find(reinterpret_cast<uintptr_t>(hwnd));
    return it == m_windows.end() ? nullptr : it->second;
}

std::shared_ptr<Windows::Class> Windows::findClass(LPCWSTR name) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!name) return nullptr;
    if (reinterpret_cast<uintptr_t>(name) < 0x10000) {   // an atom (MAKEINTATOM)
        for (const auto &[key, c] : m_classes)
            if (c->atom == ATOM(reinterpret_cast<uintptr_t>(name))) return c;
        return nullptr;
    }
    auto it = m_classes.find(classKey(wide(name)));
    return it == m_classes.end() ? nullptr : it->second;
}

LRESULT Windows::call(const std::shared_ptr<Window> &w, UINT msg, WPARAM wParam, LPARAM lParam) {
    return w->cls->proc(w->hwnd, msg, wParam, lParam);
}

// ---------------------------------------------------------------- classes and windows

ATOM Windows::registerClass(const WNDCLASSW *wc) {
    if (!wc || !wc->lpszClassName || !wc->lpfnWndProc || reinterpret_cast<uintptr_t>(wc->lpszClassName) < 0x10000) {
        setLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto c = std::make_shared<Class>();
    c->name = wide(wc->lpszClassName);
    c->proc = wc->lpfnWndProc;
    const uintptr_t brush = reinterpret_cast<uintptr_t>(wc->hbrBackground);
    if (brush >= kStockBase && (brush - kStockBase) % 4 == 0 && (brush - kStockBase) / 4 <= NULL_BRUSH)
        c->stockBrush = int((brush - kStockBase) / 4);
    std::lock_guard<std::mutex> lock(m_mutex);
    // The program's classes come before the system's, so it may register "EDIT" over the control;
    // a name it registered already fails.
    std::string key = classKey(c->name);
    auto it = m_classes.find(key);
    if (it != m_classes.end() && it->second->proc != editProcedure && it->second->proc != buttonProcedure) {
        setLastError(kErrorClassAlreadyExists);
        return 0;
    }
    c->atom = m_nextAtom++;
    m_classes[key] = c;
    return c->atom;
}

HWND Windows::createWindow(DWORD exStyle, LPCWSTR className, LPCWSTR title, DWORD style, int x, int y, int width,
                           int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID param) {
    auto cls = findClass(className);
    if (!cls) {
        setLastError(kErrorCannotFindClass);
        return nullptr;
    }
    if (parent && !find(parent)) {
        setLastError(kErrorInvalidWindowHandle);
        return nullptr;
    }
    if ((style & WS_CHILD) && !parent) {
        setLastError(kErrorChildWithoutParent);
        return nullptr;
    }
    auto w = std::make_shared<Window>();
    w->cls = cls;
    w->owner = std::this_thread::get_id();
    w->parent = parent;
    w->id = (style & WS_CHILD) ? WORD(reinterpret_cast<uintptr_t>(menu)) : 0;
    w->text = wide(title);
    w->style = w->created = style;
    // CW_USEDEFAULT places a top-level window at the origin, over the whole screen.
    const bool child = (style & WS_CHILD) != 0;
    w->x = x == CW_USEDEFAULT ? 0 : x;
    w->y = y == CW_USEDEFAULT ? 0 : y;
    w->width = width == CW_USEDEFAULT ? (child ? 0 : m_screenWidth) : width;
    w->height = height == CW_USEDEFAULT ? (child ? 0 : m_screenHeight) : height;
    const nlohmann::json made = {{"class", utf8(cls->name)}, {"title", utf8(w->text)}, {"style", style}, {"x", w->x},
                                 {"y", w->y}, {"width", w->width}, {"height", w->height}};
    CreateStruct cs = {param, instance, menu, parent, w->height, w->width, w->y, w->x, LONG(style), title,
                       className, exStyle};
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        w->hwnd = reinterpret_cast<HWND>(m_nextWindow);
        m_nextWindow += 4;
        m_windows[reinterpret_cast<uintptr_t>(w->hwnd)] = w;
        if (!m_panel && cls->proc == editProcedure) m_panel = w;
    }
    m_dev.journal().write("create_window", made);
    if (call(w, WM_CREATE, 0, reinterpret_cast<LPARAM>(&cs)) == -1) {
        destroy(w, false);   // the procedure refused its creation: never shown
        return nullptr;
    }
    return w->hwnd;
}

// WM_DESTROY goes to the window, then to its children and owned windows (which still exist while it
// runs); then they all go, with the messages still posted to them.
void Windows::destroy(const std::shared_ptr<Window> &root, bool shown) {
    std::vector<std::shared_ptr<Window>> tree;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (root->destroying) return;
        tree.push_back(root);
        for (size_t i = 0; i < tree.size(); ++i)
            for (const auto &[h, w] : m_windows)
                if (w->parent == tree[i]->hwnd && !w->destroying) tree.push_back(w);
        for (const auto &w : tree) w->destroying = true;
    }
    for (const auto &w : tree) call(w, WM_DESTROY, 0, 0);
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto &w : tree) {
        if (m_windows.erase(reinterpret_cast<uintptr_t>(w->hwnd)) && shown) m_gone.push_back(infoOf(*w));
        if (m_gone.size() > kGoneKept) m_gone.pop_front();
    }
}

BOOL Windows::destroyWindow(HWND hwnd) {
    auto w = find(hwnd);
    if (!w) {
        setLastError(kErrorInvalidWindowHandle);
        return FALSE;
    }
    if (w->owner != std::this_thread::get_id()) {   // only the window's own thread may destroy it
        setLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    destroy(w);
    return TRUE;
}

BOOL Windows::showWindow(HWND hwnd, int cmd) {
    auto w = find(hwnd);
    if (!w) {
        setLastError(kErrorInvalidWindowHandle);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    const BOOL wasVisible = (w->style & WS_VISIBLE) ? TRUE : FALSE;
    if (cmd == SW_HIDE) w->style &= ~DWORD(WS_VISIBLE);
    else w->style |= WS_VISIBLE;
    return wasVisible;
}

BOOL Windows::updateWindow(HWND hwnd) {
    if (!find(hwnd)) {
        setLastError(kErrorInvalidWindowHandle);
        return FALSE;
    }
    return TRUE;   // nothing is painted
}

bool Windows::isWindow(HWND hwnd) const { return hwnd && find(hwnd) != nullptr; }

HWND Windows::parentOf(HWND hwnd) const {
    auto w = find(hwnd);
    if (!w) {
        setLastError(kErrorInvalidWindowHandle);
        return nullptr;
    }
    // A child's parent, or a pop-up's owner; a top-level window has none.
    return (w->created & (WS_CHILD | kStylePopup)) ? w->parent : nullptr;
}

// ---------------------------------------------------------------- messages

bool Windows::takePostedLocked(Queue &q, HWND filter, UINT first, UINT last, MSG &out) {
    for (auto it = q.posted.begin(); it != q.posted.end();) {
        if (it->hwnd && !find(it->hwnd)) {   // its window was destroyed since: dropped
            it = q.posted.erase(it);
            continue;
        }
        bool match = !filter;
        for (HWND h = it->hwnd; !match && h;) {   // the filter window or one of its children
            if (h == filter) match = true;
            auto w = find(h);
            h = w && (w->created & WS_CHILD) ? w->parent : nullptr;
        }
        if (match && (first == 0 && last == 0 ? true : it->message >= first && it->message <= last)) {
            out = *it;
            q.posted.erase(it);
            return true;
        }
        ++it;
    }
    return false;
}

BOOL Windows::getMessage(MSG *msg, HWND filter, UINT first, UINT last) {
    if (!msg) {
        setLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (filter && !find(filter)) {
        setLastError(kErrorInvalidWindowHandle);
        return -1;
    }
    Clock &clock = m_dev.clock();
    for (;;) {
        std::unique_lock<std::mutex> lock(clock.mutex());
        auto &slot = m_queues[std::this_thread::get_id()];
        if (!slot) slot = std::make_unique<Queue>();
        Queue &q = *slot;
        std::shared_ptr<Sent> sent;
        MSG got = {};
        bool taken = false, handOver = false;
        const bool woke = clock.wait(lock, [&] {
            if (!q.sent.empty()) {
                sent = q.sent.front();
                q.sent.pop_front();
                return true;
            }
            if (takePostedLocked(q, filter, first, last, got)) return taken = true;
            // WM_QUIT comes when no posted message is left for the caller (a thread message, so
            // only without a window filter).
            if (q.quit && !filter && (first == 0 && last == 0 ? true : WM_QUIT >= first && WM_QUIT <= last)) {
                q.quit = false;
                got.message = WM_QUIT;
                got.wParam = WPARAM(q.quitCode);
                return taken = true;
            }
            if (m_dev.endAtHandOver() && !m_dev.kernel().acceptedImageRequests().empty()) return handOver = true;
            return false;
        }, INFINITE);
        if (sent) {
            lock.unlock();
            handleSent(sent);
            continue;
        }
        if (handOver) {
            lock.unlock();
            m_dev.endProcess(0, "handed-over");
        }
        if (!woke || !taken) {   // the device is going away
            std::memset(msg, 0, sizeof *msg);
            return FALSE;
        }
        if (!got.time) got.time = clock.ticks();
        *msg = got;
        return got.message == WM_QUIT ? FALSE : TRUE;
    }
}

LRESULT Windows::dispatch(const MSG *msg) {
    if (!msg || !msg->hwnd) return 0;
    auto w = find(msg->hwnd);
    if (!w) {
        setLastError(kErrorInvalidWindowHandle);
        return 0;
    }
    return call(w, msg->message, msg->wParam, msg->lParam);
}

BOOL Windows::post(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    std::thread::id to = std::this_thread::get_id();   // a NULL window: the calling thread
    if (hwnd) {
        auto w = find(hwnd);
        if (!w) {
            setLastError(kErrorInvalidWindowHandle);
            return FALSE;
        }
        to = w->owner;
    }
    Clock &clock = m_dev.clock();
    MSG m = {hwnd, msg, wParam, lParam, clock.ticks(), {0, 0}};
    std::lock_guard<std::mutex> lock(clock.mutex());
    auto &slot = m_queues[to];
    if (!slot) slot = std::make_unique<Queue>();
    slot->posted.push_back(m);
    clock.notifyLocked();
    return TRUE;
}

void Windows::postQuit(int code) {
    Clock &clock = m_dev.clock();
    std::lock_guard<std::mutex> lock(clock.mutex());
    auto &slot = m_queues[std::this_thread::get_id()];
    if (!slot) slot = std::make_unique<Queue>();
    slot->quit = true;
    slot->quitCode = code;
    clock.notifyLocked();
}

// The user presses the newest button on the screen: the click reaches it through its thread's queue.
void Windows::pressButtonLocked() {
    std::shared_ptr<Window> button;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_windows.rbegin(); it != m_windows.rend() && !button; ++it)
            if (it->second->cls->proc == buttonProcedure && !it->second->destroying) button = it->second;
    }
    if (!button) return;
    auto &slot = m_queues[button->owner];
    if (!slot) slot = std::make_unique<Queue>();
    slot->posted.push_back({button->hwnd, BM_CLICK, 0, 0, m_dev.clock().ticks(), {0, 0}});
}

LRESULT Windows::send(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    auto w = find(hwnd);
    if (!w) {
        setLastError(kErrorInvalidWindowHandle);
        return 0;
    }
    const auto me = std::this_thread::get_id();
    if (w->owner == me) return call(w, msg, wParam, lParam);
    // Another thread's window: its thread handles the message the next time it waits for messages,
    // and this thread waits for the result, handling what is sent to its own windows meanwhile.
    auto s = std::make_shared<Sent>(Sent{hwnd, msg, wParam, lParam});
    Clock &clock = m_dev.clock();
    std::unique_lock<std::mutex> lock(clock.mutex());
    auto &target = m_queues[w->owner];
    if (!target) target = std::make_unique<Queue>();
    target->sent.push_back(s);
    clock.notifyLocked();
    auto &slot = m_queues[me];
    if (!slot) slot = std::make_unique<Queue>();
    Queue &mine = *slot;
    for (;;) {
        std::shared_ptr<Sent> incoming;
        const bool woke = clock.wait(lock, [&] {
            if (s->done) return true;
            if (mine.sent.empty()) return false;
            incoming = mine.sent.front();
            mine.sent.pop_front();
            return true;
        }, INFINITE);
        if (!woke) return 0;   // the device is going away
        if (!incoming) return s->result;
        lock.unlock();
        handleSent(incoming);
        lock.lock();
    }
}

void Windows::handleSent(const std::shared_ptr<Sent> &s) {
    LRESULT result = 0;
    if (auto w = find(s->hwnd)) result = call(w, s->msg, s->wParam, s->lParam);
    Clock &clock = m_dev.clock();
    std::lock_guard<std::mutex> lock(clock.mutex());
    s->result = result;
    s->done = true;
    clock.notifyLocked();
}

LRESULT Windows::defProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    auto w = find(hwnd);
    if (!w) return 0;
    switch (msg) {
    case WM_CLOSE:
        destroy(w);
        return 0;
    case WM_SETTEXT: {
        std::lock_guard<std::mutex> lock(m_mutex);
        w->text = wide(reinterpret_cast<LPCWSTR>(lParam));
        return TRUE;
    }
    case WM_GETTEXT: {
        std::lock_guard<std::mutex> lock(m_mutex);
        return copyText(w->text, wParam, lParam);
    }
    case WM_GETTEXTLENGTH: {
        std::lock_guard<std::mutex> lock(m_mutex);
        return LRESULT(w->text.size());
    }
    default:
        return 0;
    }
}

// ---------------------------------------------------------------- controls

LRESULT Windows::editProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    auto w = find(hwnd);
    if (!w) return 0;
    switch (msg) {
    case WM_CREATE:
        return 0;
    case WM_SETTEXT: {   // not held to the text limit; the caret goes to the start
        std::lock_guard<std::mutex> lock(m_mutex);
        w->text = wide(reinterpret_cast<LPCWSTR>(lParam));
        w->selStart = w->selEnd = 0;
        return TRUE;
    }
    case WM_SETFONT:
    case WM_GETFONT:
        return controlFont(*w, msg, wParam);
    case EM_SETSEL: {
        // -1 as the start removes the selection (the caret stays); a negative end is the end of the
        // text; positions past the end are the end; the caret goes to the greater of the two.
        const int start = int(wParam), end = int(lParam);
        std::lock_guard<std::mutex> lock(m_mutex);
        const size_t len = w->text.size();
        if (start == -1) {
            w->selStart = w->selEnd;
            return 0;
        }
        const size_t s = start < 0 ? len : std::min<size_t>(size_t(start), len);
        const size_t e = end < 0 ? len : std::min<size_t>(size_t(end), len);
        w->selStart = std::min(s, e);
        w->selEnd = std::max(s, e);
        return 0;
    }
    case EM_GETSEL: {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (wParam) *reinterpret_cast<DWORD *>(wParam) = DWORD(w->selStart);
        if (lParam) *reinterpret_cast<DWORD *>(lParam) = DWORD(w->selEnd);
        if (w->selStart > 0xFFFF || w->selEnd > 0xFFFF) return -1;
        return LRESULT(MAKELPARAM(w->selStart, w->selEnd));
    }
    case EM_LIMITTEXT: {
        const bool multi = (w->created & ES_MULTILINE) != 0;
        const size_t most = multi ? 0x7FFFFFFE : 0x7FFE;
        std::lock_guard<std::mutex> lock(m_mutex);
        w->limit = wParam == 0 ? (multi ? 0xFFFF : 0x7FFE) : std::min<size_t>(size_t(DWORD(wParam)), most);
        return 0;
    }
    case EM_GETLIMITTEXT: {
        std::lock_guard<std::mutex> lock(m_mutex);
        return LRESULT(w->limit);
    }
    case EM_REPLACESEL: {
        // The new text replaces the selection as far as the text limit lets it (the rest is cut, and
        // the parent hears EN_MAXTEXT); the caret follows the new text.
        if (!lParam) return 0;
        std::u16string add = wide(reinterpret_cast<LPCWSTR>(lParam));
        size_t cut = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            const size_t len = w->text.size();
            const size_t lo = std::min(w->selStart, len), hi = std::min(w->selEnd, len);
            const size_t kept = len - (hi - lo);
            const size_t room = w->limit > kept ? w->limit - kept : 0;
            if (add.size() > room) {
                cut = add.size() - room;
                add.resize(room);
            }
            w->text.replace(lo, hi - lo, add);
            w->selStart = w->selEnd = lo + add.size();
        }
        const std::string text = utf8(add);
        nlohmann::json fields = {{"text", text}};
        if (cut) fields["cut"] = cut;
        m_dev.journal().write("panel", fields);
        std::string echo;
        if (m_echo)
            for (char c : text)
                if (c != '\r') echo.push_back(c);
        if (!echo.empty()) {
            std::fwrite(echo.data(), 1, echo.size(), stdout);
            std::fflush(stdout);
        }
        if (cut && w->parent) send(w->parent, WM_COMMAND, MAKEWPARAM(w->id, kEnMaxText), reinterpret_cast<LPARAM>(hwnd));
        return 0;
    }
    default:
        return defProc(hwnd, msg, wParam, lParam);
    }
}

// WM_SETFONT and WM_GETFONT of the built-in controls.
LRESULT Windows::controlFont(Window &w, UINT msg, WPARAM wParam) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (msg == WM_SETFONT) {
        w.font = reinterpret_cast<HFONT>(wParam);
        return 0;
    }
    return reinterpret_cast<LRESULT>(w.font);
}

LRESULT Windows::buttonProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
    auto w = find(hwnd);
    if (!w) return 0;
    switch (msg) {
    case WM_CREATE:
        return 0;
    case WM_SETFONT:
    case WM_GETFONT:
        return controlFont(*w, msg, wParam);
    case BM_CLICK:   // a press and release: the parent hears BN_CLICKED
        if (w->parent) send(w->parent, WM_COMMAND, MAKEWPARAM(w->id, BN_CLICKED), reinterpret_cast<LPARAM>(hwnd));
        return 0;
    default:
        return defProc(hwnd, msg, wParam, lParam);
    }
}

// ---------------------------------------------------------------- GDI

HGDIOBJ Windows::stockObject(int index) const {
    return isStockIndex(index) ? reinterpret_cast<HGDIOBJ>(kStockBase + uintptr_t(index) * 4) : nullptr;
}

HFONT Windows::createFont(const LOGFONTW *lf) {
    if (!lf) {
        setLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    FontInfo f;
    size_t n = 0;
    while (n < LF_FACESIZE && lf->lfFaceName[n]) ++n;   // the face may fill its field unterminated
    f.face.assign(lf->lfFaceName, n);
    f.height = lf->lfHeight;
    f.weight = lf->lfWeight;
    f.deleted = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        f.handle = reinterpret_cast<HFONT>(kFontBase + m_fonts.size() * 4);
        m_fonts.push_back(f);
    }
    m_dev.journal().write("font", {{"face", utf8(f.face)}, {"height", f.height}, {"weight", f.weight}});
    return f.handle;
}

BOOL Windows::deleteObject(HGDIOBJ obj) {
    const uintptr_t v = reinterpret_cast<uintptr_t>(obj);
    if (v >= kStockBase && (v - kStockBase) % 4 == 0 && isStockIndex(int((v - kStockBase) / 4))) return TRUE;
    std::lock_guard<std::mutex> lock(m_mutex);
    if (v >= kFontBase && (v - kFontBase) % 4 == 0 && (v - kFontBase) / 4 < m_fonts.size()) {
        FontInfo &f = m_fonts[(v - kFontBase) / 4];
        if (!f.deleted) {
            f.deleted = true;
            return TRUE;
        }
    }
    setLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

std::shared_ptr<Windows> makeWindows(Device &dev, const toml::table &profile) {
    return std::make_shared<Windows>(dev, profile);
}

}  // namespace sim

// ---------------------------------------------------------------- the CE calls

using sim::dev;

// Every call passes the device's failure check first (dev().injected: true when it must fail).

ATOM WINAPI RegisterClassW(const WNDCLASSW *lpWndClass) {
    if (dev().injected("RegisterClassW")) return 0;
    return dev().windows().registerClass(lpWndClass);
}

HWND WINAPI CreateWindowExW(DWORD dwExStyle, LPCWSTR lpClassName, LPCWSTR lpWindowName, DWORD dwStyle, int X, int Y,
                            int nWidth, int nHeight, HWND hWndParent, HMENU hMenu, HINSTANCE hInstance,
                            LPVOID lpParam) {
    if (dev().injected("CreateWindowExW")) return NULL;
    return dev().windows().createWindow(dwExStyle, lpClassName, lpWindowName, dwStyle, X, Y, nWidth, nHeight,
                                        hWndParent, hMenu, hInstance, lpParam);
}

BOOL WINAPI DestroyWindow(HWND hWnd) {
    if (dev().injected("DestroyWindow")) return FALSE;
    return dev().windows().destroyWindow(hWnd);
}

BOOL WINAPI ShowWindow(HWND hWnd, int nCmdShow) {
    if (dev().injected("ShowWindow")) return FALSE;
    return dev().windows().showWindow(hWnd, nCmdShow);
}

BOOL WINAPI UpdateWindow(HWND hWnd) {
    if (dev().injected("UpdateWindow")) return FALSE;
    return dev().windows().updateWindow(hWnd);
}

BOOL WINAPI IsWindow(HWND hWnd) {
    if (dev().injected("IsWindow")) return FALSE;
    return dev().windows().isWindow(hWnd) ? TRUE : FALSE;
}

HWND WINAPI GetParent(HWND hWnd) {
    if (dev().injected("GetParent")) return NULL;
    return dev().windows().parentOf(hWnd);
}

// A failure returns 0, as CE documents for a call that retrieves nothing (the message is zeroed).
BOOL WINAPI GetMessageW(LPMSG lpMsg, HWND hWnd, UINT wMsgFilterMin, UINT wMsgFilterMax) {
    if (dev().injected("GetMessageW")) {
        if (lpMsg) std::memset(lpMsg, 0, sizeof *lpMsg);
        return FALSE;
    }
    return dev().windows().getMessage(lpMsg, hWnd, wMsgFilterMin, wMsgFilterMax);
}

BOOL WINAPI TranslateMessage(const MSG *) {
    dev().injected("TranslateMessage");
    return FALSE;   // no keyboard: never a character message
}

LRESULT WINAPI DispatchMessageW(const MSG *lpMsg) {
    if (dev().injected("DispatchMessageW")) return 0;
    return dev().windows().dispatch(lpMsg);
}

BOOL WINAPI PostMessageW(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    if (dev().injected("PostMessageW")) return FALSE;
    return dev().windows().post(hWnd, Msg, wParam, lParam);
}

LRESULT WINAPI SendMessageW(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    if (dev().injected("SendMessageW")) return 0;
    return dev().windows().send(hWnd, Msg, wParam, lParam);
}

void WINAPI PostQuitMessage(int nExitCode) {
    dev().injected("PostQuitMessage");   // cannot fail: counted (and may crash) only
    dev().windows().postQuit(nExitCode);
}

LRESULT WINAPI DefWindowProcW(HWND hWnd, UINT Msg, WPARAM wParam, LPARAM lParam) {
    if (dev().injected("DefWindowProcW")) return 0;
    return dev().windows().defProc(hWnd, Msg, wParam, lParam);
}

int WINAPI GetSystemMetrics(int nIndex) {
    if (dev().injected("GetSystemMetrics")) return 0;
    sim::Windows &w = dev().windows();
    return nIndex == SM_CXSCREEN ? w.screenWidth() : nIndex == SM_CYSCREEN ? w.screenHeight() : 0;
}

HGDIOBJ WINAPI GetStockObject(int fnObject) {
    if (dev().injected("GetStockObject")) return NULL;
    return dev().windows().stockObject(fnObject);
}

HFONT WINAPI CreateFontIndirectW(const LOGFONTW *lplf) {
    if (dev().injected("CreateFontIndirectW")) return NULL;
    return dev().windows().createFont(lplf);
}

BOOL WINAPI DeleteObject(HGDIOBJ hObject) {
    if (dev().injected("DeleteObject")) return FALSE;
    return dev().windows().deleteObject(hObject);
}

// The text calls send WM_GETTEXTLENGTH, WM_GETTEXT and WM_SETTEXT to the window, as the platform
// does for a window of the calling process.
int WINAPI GetWindowTextLengthW(HWND hWnd) {
    if (dev().injected("GetWindowTextLengthW")) return 0;
    return int(dev().windows().send(hWnd, WM_GETTEXTLENGTH, 0, 0));
}

int WINAPI GetWindowTextW(HWND hWnd, LPWSTR lpString, int nMaxCount) {
    if (dev().injected("GetWindowTextW")) {
        if (lpString && nMaxCount > 0) lpString[0] = 0;
        return 0;
    }
    if (!lpString || nMaxCount <= 0) return 0;
    lpString[0] = 0;   // an invalid window leaves an empty text
    return int(dev().windows().send(hWnd, WM_GETTEXT, WPARAM(nMaxCount), reinterpret_cast<LPARAM>(lpString)));
}

BOOL WINAPI SetWindowTextW(HWND hWnd, LPCWSTR lpString) {
    if (dev().injected("SetWindowTextW")) return FALSE;
    return dev().windows().send(hWnd, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(lpString)) ? TRUE : FALSE;
}
