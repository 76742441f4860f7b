// The XML document model: a file read as UTF-8 or, after a byte order mark, as UTF-16 of either
// order; its tree walked through XmlNode and XmlChildList under the buffer-size contract; then
// written back (always as UTF-8) and read again, with the same elements, when it was well formed.
// Input: byte 0 % 3 how the rest is put down: as it stands, or taken as UTF-8 and written as UTF-16
// little-endian (1) or big-endian (2) after its byte order mark; byte 1 the small buffers' size.
#include "fuzz_device.h"
#include "framework/xmlfile.h"

#include <algorithm>
#include <vector>

namespace {

const char kXml[] = "\\My Flash Disk\\doc.xml";
const int kMaxDepth = 64;
const size_t kMaxNodes = 2000;

std::u16string text(const WCHAR *buf, size_t cap) { return std::u16string(buf, fuzz::terminatedLength(buf, cap)); }

// A string operation under the size contract: a buffer too small gives 0 and the size needed
// (length + 1), with which it succeeds. keepsPrefix: what a too-small buffer receives is the start.
template <class Get> std::u16string sized(Get get, DWORD small, bool keepsPrefix) {
    std::vector<WCHAR> buf(small, 0xAAAA);
    DWORD size = small;
    if (get(buf.data(), &size)) {
        FUZZ_CHECK(size == small);
        return text(buf.data(), small);
    }
    FUZZ_CHECK(size > small);
    const std::u16string part = keepsPrefix ? text(buf.data(), small) : std::u16string();
    std::vector<WCHAR> whole(size, 0xAAAA);
    const DWORD needed = size;
    FUZZ_CHECK(get(whole.data(), &size));
    const std::u16string out = text(whole.data(), needed);
    FUZZ_CHECK(out.size() + 1 == needed);
    FUZZ_CHECK(out.compare(0, part.size(), part) == 0);
    return out;
}

struct Walk {
    DWORD small;
    std::vector<std::u16string> names;   // the elements in document order
    bool cut = false;                    // not walked to the end (too deep or too many)
};

void visit(XmlNode *node, Walk &w, int depth) {
    const std::u16string name = sized([&](WCHAR *b, DWORD *s) { return node->getName(b, s); }, w.small, false);
    w.names.push_back(name);
    sized([&](WCHAR *b, DWORD *s) { return node->getText(b, s); }, w.small, true);

    // Attributes in their order; each is found again by its name.
    std::vector<WCHAR> attrName(1024), value(1 << 16);
    for (int i = 0; i < 1000; ++i) {
        DWORD ns = DWORD(attrName.size()), vs = DWORD(value.size());
        if (!node->getNextAttribute(attrName.data(), &ns, value.data(), &vs, i == 0)) break;
        const std::u16string v = text(value.data(), value.size());
        const std::u16string again = sized(
            [&](WCHAR *b, DWORD *s) { return node->getAttribute(attrName.data(), b, s); }, w.small, false);
        FUZZ_CHECK(again == v);
    }

    XmlChildList *list = nullptr;
    const BOOL children = node->hasChildren();
    FUZZ_CHECK(node->getChildList(&list) == children);   // no element children: a failure, not a list
    if (!children) {
        FUZZ_CHECK(list == nullptr);
        return;
    }
    std::vector<std::u16string> childNames;
    XmlNode *child = nullptr;
    for (BOOL restart = TRUE; list->next(restart, &child); restart = FALSE) {
        const size_t at = w.names.size();
        if (depth < kMaxDepth && w.names.size() < kMaxNodes) {
            visit(child, w, depth + 1);
        } else {
            w.names.push_back(sized([&](WCHAR *b, DWORD *s) { return child->getName(b, s); }, w.small, false));
            w.cut = w.cut || child->hasChildren();
        }
        FUZZ_CHECK(w.names[at].compare(0, 3, u"!--") != 0);   // comments are not listed
        childNames.push_back(w.names[at]);
        FUZZ_CHECK(child->release() == 1);   // the list holds its own reference
    }
    FUZZ_CHECK(int(childNames.size()) == list->getCount());
    FUZZ_CHECK(list->release() == 0);

    // The children of one name, exactly. (A name with U+FFFD may stand for bytes that Mini-XML kept
    // and that are no UTF-8, such as the mark it leaves for a control character: not looked up.)
    if (childNames.empty() || childNames.front().find(u'\uFFFD') != std::u16string::npos) return;
    XmlChildList *named = nullptr;
    const std::u16string first = childNames.front();
    FUZZ_CHECK(node->getNamedChildList(first.c_str(), &named));
    FUZZ_CHECK(named->getCount() == int(std::count(childNames.begin(), childNames.end(), first)));
    FUZZ_CHECK(named->release() == 0);
}

void walk(XmlFile *file, Walk &w) {
    XmlNode *doc = nullptr;
    FUZZ_CHECK(file->getDocumentNode(&doc));
    visit(doc, w, 0);
    FUZZ_CHECK(doc->release() == 0);
    // "*" finds the first element that is no comment, declaration or processing instruction.
    auto plain = [](const std::u16string &n) { return n.compare(0, 3, u"!--") != 0 && n.compare(0, 1, u"?") != 0; };
    const auto expected = std::find_if(w.names.begin() + 1, w.names.end(), plain);
    XmlNode *any = nullptr;
    DWORD size = 0;
    if (!file->getNode(u"//*", nullptr, &size, &any)) {
        FUZZ_CHECK(w.cut || expected == w.names.end());
        return;
    }
    const std::u16string n = sized([&](WCHAR *b, DWORD *s) { return any->getName(b, s); }, w.small, false);
    FUZZ_CHECK(w.cut || (expected != w.names.end() && n == *expected));
    FUZZ_CHECK(any->release() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    fuzz::Input input;
    testing_support::TestDevice &td = input.td;
    std::string bytes(reinterpret_cast<const char *>(data) + 2, size - 2);
    const int encoding = data[0] % 3;
    if (encoding != 0) {
        std::string utf16 = encoding == 1 ? "\xFF\xFE" : "\xFE\xFF";
        for (char16_t u : sim::fromUtf8(bytes)) {
            const char lo = char(u & 0xFF), hi = char(u >> 8);
            utf16 += encoding == 1 ? std::string{lo, hi} : std::string{hi, lo};
        }
        bytes = utf16;
    }
    td.put(kXml, bytes);
    const std::u16string path = testing_support::W(kXml);

    XmlFile *file = nullptr;
    const testing_support::LogMark mark;
    if (!XmlFile::create(path.c_str(), &file)) {
        FUZZ_CHECK(file == nullptr);
        return 0;
    }
    const bool clean = mark.since().empty();   // Mini-XML's complaints are logged as they come
    Walk first{DWORD(data[1] % 24 + 1), {}};
    walk(file, first);
    FUZZ_CHECK(file->release() == 0);
    FUZZ_CHECK(td.get(kXml) == bytes);   // a read-only document is never written

    // Written back as UTF-8, a document that Mini-XML read without complaint reads again with the
    // same elements. (From a malformed one it may have kept marks that write out malformed.)
    if (!clean) return 0;
    FUZZ_CHECK(XmlFile::createWritable(path.c_str(), &file));
    FUZZ_CHECK(file->close());
    FUZZ_CHECK(file->release() == 0);
    FUZZ_CHECK(XmlFile::create(path.c_str(), &file));
    Walk second{first.small, {}};
    walk(file, second);
    FUZZ_CHECK(file->release() == 0);
    FUZZ_CHECK(second.names == first.names);
    return 0;
}
