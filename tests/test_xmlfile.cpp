// The XML document model: file naming, the size-query contract, searching, child lists, text and
// attributes, the character source and the UTF-8 sink, and the new-file writer.
#include "framework/xmlfile.h"
#include "platform/platform.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

using testing_support::U;
using testing_support::W;
using testing_support::LogMark;

namespace {


// UTF-16 bytes of a UTF-16 string, little- or big-endian, with a byte order mark first.
std::string utf16(const std::u16string &s, bool bigEndian) {
    std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char16_t u : s) {
        char hi = char(u >> 8), lo = char(u & 0xFF);
        out += bigEndian ? std::string{hi, lo} : std::string{lo, hi};
    }
    return out;
}

template <class... T> void release(T *...objects) { (objects->release(), ...); }

std::u16string text(XmlNode *n) {
    std::vector<WCHAR> buf(10000);
    DWORD size = DWORD(buf.size());
    return n->getText(buf.data(), &size) ? std::u16string(buf.data()) : u"<failed>";
}

std::string nameOf(XmlNode *n) {
    WCHAR buf[64];
    DWORD size = 64;
    return n->getName(buf, &size) ? U(buf) : "<failed>";
}

// A device logging at DEBUG; the files it opens and the nodes it finds are released at its end.
struct Fixture {
    testing_support::TestDevice dev;
    std::vector<XmlFile *> files;
    std::vector<XmlNode *> nodes;
    Fixture() {
        dev.put(testing_support::kDeviceSettingsFile, "");
        g_vlLogSettings.level = LOG_DEBUG;
    }
    ~Fixture() {
        for (XmlNode *n : nodes) n->release();
        for (XmlFile *f : files) f->release();
    }
    XmlFile *open(const std::string &name, const std::string &bytes, bool writable = false) {
        dev.put(name, bytes);
        XmlFile *f = nullptr;
        if ((writable ? XmlFile::createWritable : XmlFile::create)(W(name).c_str(), &f)) files.push_back(f);
        return f;
    }
    // The first element called name, or null.
    XmlNode *find(XmlFile *f, const char *name) {
        XmlNode *n = nullptr;
        if (f && f->getNode(W(name).c_str(), nullptr, nullptr, &n)) nodes.push_back(n);
        return n;
    }
    std::u16string text(XmlFile *f, const char *name) {
        XmlNode *n = find(f, name);
        return n ? ::text(n) : u"<no node>";
    }
};

const char *kDoc = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<config>\r\n  <!-- the upgrade -->\r\n"
                   "  <device id=\"d1\">\r\n    <kernel><upgrade><version>V5</version></upgrade></kernel>\r\n"
                   "    <kernel><upgrade><version>V6</version></upgrade></kernel>\r\n"
                   "    <region/>\r\n  </device>\r\n</config>\r\n";

}  // namespace

TEST(XmlFileCreate, ExtensionRuleAndLoadFailures) {
    Fixture fx;
    enum Result { OPENED, BAD_NAME, LOAD_FAILED };
    struct Case { const char *name; Result result; const char *message; } cases[] = {
        {"\\plain.XML", OPENED, nullptr},
        {"\\more.xmlx", OPENED, nullptr},
        {"\\dir.xml\\file", OPENED, nullptr},   // the last '.' anywhere in the path counts
        {"\\noext", BAD_NAME, "must specify file extension"},
        {"\\a.txt", BAD_NAME, "unknown extension .txt"},
        {"\\missing.xml", LOAD_FAILED, "Cannot open \\missing.xml"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        if (c.result != LOAD_FAILED) fx.dev.put(c.name, "<a/>");
        LogMark mark;
        XmlFile *f = reinterpret_cast<XmlFile *>(1);
        EXPECT_EQ(BOOL(c.result == OPENED), XmlFile::create(W(c.name).c_str(), &f));
        if (c.result == OPENED) {
            ASSERT_NE(nullptr, f);
            EXPECT_TRUE(f->isReadOnly());
            EXPECT_EQ(0, f->release());   // the caller held the only reference
            continue;
        }
        EXPECT_EQ(nullptr, f);
        const std::string name = c.name;
        EXPECT_TRUE(mark.has(c.message));
        EXPECT_TRUE(mark.has("XmlFile::create " + name + " failed"));
        EXPECT_EQ(c.result == LOAD_FAILED, mark.count("loadXmlFile " + name + " failed") == 1);
    }
}

TEST(XmlFileCreate, FileNameContract) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", "<a/>");   // a name of 6 characters
    ASSERT_NE(nullptr, f);
    struct Case { DWORD size; BOOL ok; DWORD sizeAfter; WCHAR after; } cases[] = {
        {7, 1, 7, u'\0'},
        {6, 1, 6, u'#'},   // as long as the buffer: copied without terminator
        {5, 0, 6, u'#'},   // needed size is the length, without terminator
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        std::u16string buf(8, u'#');
        DWORD size = c.size;
        EXPECT_EQ(c.ok, f->getFileName(&buf[0], &size));
        EXPECT_EQ(c.sizeAfter, size);
        EXPECT_EQ(c.ok ? u"\\a.xml" : u"######", buf.substr(0, 6));
        EXPECT_EQ(c.after, buf[6]);
    }
}

TEST(XmlNodeStrings, SizeQueryContract) {
    Fixture fx;
    XmlNode *n = fx.find(fx.open("\\a.xml", "<r><device serial=\"ABC-123\">hello big world</device></r>"), "device");
    ASSERT_NE(nullptr, n);
    struct Case { const char *expected, *message, *partial; std::function<BOOL(WCHAR *, DWORD *)> op; } cases[] = {
        {"device", "buffer not big enough", nullptr, [&](WCHAR *b, DWORD *s) { return n->getName(b, s); }},
        {"ABC-123", "Buffer not big enough", nullptr,
         [&](WCHAR *b, DWORD *s) { return n->getAttribute(W("serial").c_str(), b, s); }},
        // the text copies as much as fits, terminated
        {"hello big world", "buffer not big enough", "hello big worl",
         [&](WCHAR *b, DWORD *s) { return n->getText(b, s); }},
        {"device", "buffer not big enough", nullptr,
         [&](WCHAR *b, DWORD *s) { return n->getNode(W("device").c_str(), b, s); }},
    };
    for (const Case &c : cases) {
        const DWORD len = DWORD(std::string(c.expected).size());
        for (DWORD size : {len + 1, len}) {
            SCOPED_TRACE(std::string(c.expected) + " in " + std::to_string(size));
            std::vector<WCHAR> buf(len + 2, u'#');
            DWORD s = size;
            LogMark mark;
            EXPECT_EQ(BOOL(size > len), c.op(buf.data(), &s));
            EXPECT_EQ(len + 1, s);
            EXPECT_EQ(size == len ? 1 : 0, mark.count(c.message)) << mark.since();
            const char *copied = size > len ? c.expected : c.partial;   // null: not looked at
            if (copied) {
                EXPECT_EQ(copied, U(buf.data()));
            }
        }
    }
    WCHAR buf[1] = {u'#'};
    DWORD size = 0;
    EXPECT_EQ(0, n->getText(buf, &size));
    EXPECT_EQ(16u, size);
    EXPECT_EQ(u'#', buf[0]);   // a zero size buffer is not touched
}

TEST(XmlNodeSearch, FindsElementsAnywhereBelowTheTop) {
    Fixture fx;
    struct Case { const char *doc, *name, *found; } cases[] = {   // found: null when not found
        {kDoc, "//device", "device"},
        {kDoc, "device", "device"},
        {kDoc, "version", "version"},
        {kDoc, "*", "config"},                             // not the declaration
        {"<!-- c --><a/>", "*", "a"},                      // not the comment
        {"<device><x/></device>", "//device", "device"},   // the root itself, without declaration
        {kDoc, "Device", nullptr},                         // names match with regard to case
        {kDoc, "missing", nullptr},
        {kDoc, "//", nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.doc) + " / " + c.name);
        XmlFile *f = fx.open("\\s.xml", c.doc);
        ASSERT_NE(nullptr, f);
        XmlNode *n = reinterpret_cast<XmlNode *>(1);
        WCHAR buf[64];
        DWORD size = 64;
        LogMark mark;
        ASSERT_EQ(BOOL(c.found != nullptr), f->getNode(W(c.name).c_str(), buf, &size, &n));
        if (c.found) {
            EXPECT_EQ(c.found, U(buf));
            EXPECT_EQ(0, n->release());   // the caller held the only reference
        } else {
            EXPECT_EQ(nullptr, n);
            EXPECT_TRUE(mark.has("getNode failed"));
        }
    }
}

TEST(XmlNodeSearch, CursorSearchStartsAgainFromTheTop) {
    Fixture fx;
    XmlNode *device = fx.find(fx.open("\\a.xml", kDoc), "device"), *first = nullptr, *second = nullptr;
    ASSERT_NE(nullptr, device);
    XmlChildList *kernels = nullptr;
    ASSERT_TRUE(device->getNamedChildList(W("kernel").c_str(), &kernels));
    ASSERT_TRUE(kernels->next(TRUE, &first));
    ASSERT_TRUE(kernels->next(FALSE, &second));
    // a node made from a kernel element searches only below that element
    EXPECT_TRUE(second->getNode(W("version").c_str(), nullptr, nullptr));
    EXPECT_EQ(u"V6", text(second));
    EXPECT_FALSE(second->getNode(W("region").c_str(), nullptr, nullptr));
    EXPECT_EQ("kernel", nameOf(second));   // back on the top after a failed search
    release(first, second, kernels);
}

TEST(XmlNodeSearchDeathTest, SlashInsideNameEndsProcess) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", kDoc);
    ASSERT_NE(nullptr, f);
    for (const char *path : {"device/kernel", "//config/device"}) {
        SCOPED_TRACE(path);
        XmlNode *n = nullptr;
        // the console sink writes to stdout, where the death test does not look
        EXPECT_EXIT({ dup2(2, 1); g_vlLogSettings.console = 1; f->getNode(W(path).c_str(), nullptr, nullptr, &n); },
                    testing::ExitedWithCode(1), "VLVERIFY\\(wcschr\\(p, L'/'\\)==NULL\\)");
    }
}

TEST(XmlEncoding, CharacterSourceDecodesAndTextJoinsPieces) {
    Fixture fx;
    const std::u16string clef = u"\U0001D11E", swapped{clef[1], clef[0]};   // a surrogate pair
    struct Case { const char *what; std::string bytes; std::u16string expected; } cases[] = {
        {"utf-8", "<a>h\xC3\xA9llo \xE2\x82\xAC \xF0\x9D\x84\x9E</a>", u"h\u00E9llo \u20AC " + clef},
        {"utf-8 with its own mark", "\xEF\xBB\xBF<a>x</a>", u"x"},
        {"utf-16le", utf16(u"<a>h\u00E9llo \u20AC</a>", false), u"h\u00E9llo \u20AC"},
        {"utf-16be", utf16(u"<a>h\u00E9llo \u20AC</a>", true), u"h\u00E9llo \u20AC"},
        {"pair high-low", utf16(u"<a>" + clef + u"</a>", false), clef},
        {"pair low-high", utf16(u"<a>" + swapped + u"</a>", false), clef},
        {"pair low-high be", utf16(u"<a>" + swapped + u"</a>", true), clef},
        {"mark after text", "<a>x</a>" + utf16(u"<b/>", false), u"x"},
        {"white space runs become one", "<a>hello  big\r\n  world</a>", u"hello big world"},
        {"none before the first piece", "<a>  lead</a>", u"lead"},
        {"only direct text, no gap", "<a>x<b>inner</b>y</a>", u"xy"},
        {"gap after a piece", "<a>x <b/>y</a>", u"x y"},
        {"white space before the end tag is a piece", "<a>V5 </a>", u"V5 "},
        {"empty", "<a/>", u""},
        {"references", "<a>caf&#233; &amp; bar</a>", u"caf\u00E9 & bar"},
        {"an over-long form is read as its character", "<a>\xC1\x81</a>", u"A"},
        // the 8192-byte read buffer ends inside the two bytes of the e acute
        {"utf-8 across a read", "<a>" + std::string(8188, 'x') + "\xC3\xA9yz</a>", std::u16string(8188, u'x') + u"\u00E9yz"},
        // the text outgrows the file (three bytes from two)
        {"utf-16 longer as utf-8", utf16(u"<a>" + std::u16string(5000, u'\u4E2D') + u"</a>", false),
         std::u16string(5000, u'\u4E2D')},
    };
    for (const Case &c : cases) EXPECT_EQ(c.expected, fx.text(fx.open("\\e.xml", c.bytes), "a")) << c.what;
}

TEST(XmlEncoding, BadInputFailsTheLoad) {
    Fixture fx;
    struct Case { const char *what; std::string bytes; bool ok; } cases[] = {
        {"missing continuation", "<a>\xC3(</a>", false},
        {"stray continuation", "<a>\x80</a>", false},
        {"five-byte lead", "<a>\xF8\x80\x80\x80\x80</a>", false},
        {"0xFE not a mark", "<a>\xFE\x41</a>", false},
        {"lone surrogate",
         utf16(u"<a>", false) + std::string("\x00\xD8\x41\x00", 4) + utf16(u"</a>", false).substr(2), false},
        {"odd utf-16 byte", utf16(u"<a/", false) + ">", false},
        {"empty file", "", false},
        {"no element", "just text", false},
        // the bad byte ends the input like the end of the file; the document is already complete
        {"bad byte after the root", "<a/>\x80junk", true},
        {"NUL ends the text", std::string("<a>x\0</a>", 9), false},
        {"NUL after the root", std::string("<a/>\0\x80", 6), true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        LogMark mark;
        EXPECT_EQ(c.ok, fx.open("\\bad.xml", c.bytes) != nullptr);
        EXPECT_EQ(c.ok ? 0 : 1, mark.count("mxmlLoadData(\\bad.xml) returned NULL")) << mark.since();
    }
    // Mini-XML's own complaint reaches the log at ERROR
    g_vlLogSettings.level = LOG_ERROR;
    LogMark mark;
    EXPECT_EQ(nullptr, fx.open("\\bad.xml", "<a><b></a>"));
    EXPECT_TRUE(mark.has("ERROR, Mismatched close tag"));
}

TEST(XmlEncoding, Utf16FileIsSavedBackAsUtf8) {
    Fixture fx;
    const std::u16string clef = u"\U0001D11E";
    // several buffers each way; mark + "<a>" + filler = 8190 bytes, so a pair spans the first boundary
    const std::u16string filler(4094 - 3, u'\u00E9');
    XmlFile *f = fx.open("\\u.xml", utf16(u"<a>" + filler + clef + u"</a>", false), true);
    ASSERT_NE(nullptr, f);
    EXPECT_FALSE(f->isReadOnly());
    EXPECT_EQ(1, f->close());
    std::string expected = "<a>";
    for (size_t i = 0; i < filler.size(); ++i) expected += "\xC3\xA9";
    EXPECT_EQ(expected + "\xF0\x9D\x84\x9E</a>\n", fx.dev.get("\\u.xml"));
    EXPECT_EQ(filler + clef, fx.text(fx.open("\\u.xml", fx.dev.get("\\u.xml")), "a"));   // and reads back
}

TEST(XmlNodeText, SetTextRefusalsAndOnlyWritableFilesAreWritten) {
    const std::string doc = "<r><p>old<q>keep</q></p><leaf>one two</leaf></r>";
    for (bool writable : {true, false}) {
        SCOPED_TRACE(writable);
        Fixture fx;
        XmlFile *f = fx.open("\\w.xml", doc, writable);
        XmlNode *p = fx.find(f, "p"), *leaf = fx.find(f, "leaf");
        ASSERT_TRUE(p && leaf);
        LogMark mark;
        EXPECT_EQ(0, p->setText(W("new").c_str()));
        EXPECT_TRUE(mark.has("node had children, can't set text"));
        EXPECT_EQ(0, p->removeText());
        EXPECT_TRUE(mark.has("children for node, can't remove text"));
        EXPECT_EQ(u"old", text(p));
        EXPECT_EQ(1, leaf->setText(W("three <&> four").c_str()));
        EXPECT_EQ(u"three <&> four", text(leaf));
        EXPECT_EQ(1, leaf->removeText());
        EXPECT_EQ(u"", text(leaf));
        EXPECT_EQ(1, leaf->setText(W("five").c_str()));
        EXPECT_EQ(1, f->close());
        EXPECT_EQ(nullptr, fx.find(f, "leaf"));   // closed: the tree is gone
        EXPECT_EQ(writable ? "<r><p>old<q>keep</q></p><leaf>five</leaf></r>\n" : doc, fx.dev.get("\\w.xml"));
    }
}

TEST(XmlNodeAttributes, EnumerationMovesOnBeforeTheSizeCheck) {
    Fixture fx;
    XmlFile *f = fx.open("\\at.xml", "<r><e long=\"1\" b=\"22\" c=\"3\"/><none/></r>", true);
    XmlNode *e = fx.find(f, "e"), *none = fx.find(f, "none");
    ASSERT_TRUE(e && none);
    WCHAR name[8], value[8];
    DWORD ns = 2, vs = 8;
    EXPECT_EQ(0, e->getNextAttribute(name, &ns, value, &vs, TRUE));   // "long" does not fit
    EXPECT_EQ(5u, ns);
    EXPECT_EQ(1, e->getNextAttribute(name, &ns, value, &vs, FALSE));  // the retry gets the next
    EXPECT_EQ("b=22", U(name) + "=" + U(value));
    EXPECT_EQ(1, e->getNextAttribute(name, &ns, nullptr, &vs, FALSE)); // value buffer may be null
    EXPECT_EQ("c", U(name));
    LogMark mark;
    EXPECT_EQ(0, e->getNextAttribute(name, &ns, value, &vs, FALSE));
    EXPECT_TRUE(mark.has("End of the attributes list"));
    EXPECT_EQ(1, e->getNextAttribute(name, &ns, value, &vs, TRUE));   // the needed 5 now fits
    EXPECT_EQ("long", U(name));
    // removal, and the messages of a missing attribute and of an element without any
    EXPECT_EQ(1, e->removeAttribute(W("b").c_str()));
    EXPECT_EQ(0, e->removeAttribute(W("b").c_str()));
    EXPECT_TRUE(mark.has("removeAttribute failed"));
    EXPECT_EQ(0, e->getAttribute(W("b").c_str(), value, &vs));
    EXPECT_TRUE(mark.has("WARNING, Can't find attribute b"));
    EXPECT_EQ(0, none->getAttribute(W("x").c_str(), value, &vs));
    EXPECT_EQ(0, none->getNextAttribute(name, &ns, value, &vs, TRUE));
    EXPECT_EQ(0, none->removeAttribute(W("x").c_str()));
    EXPECT_EQ(3, mark.count("no attributes for node")) << mark.since();
    EXPECT_EQ(1, f->close());
    EXPECT_EQ("<r><e long=\"1\" c=\"3\" /><none /></r>\n", fx.dev.get("\\at.xml"));
}

TEST(XmlChildLists, ListsNextRestartAddAndRemove) {
    Fixture fx;
    XmlFile *f = fx.open(
        "\\c.xml", "<r><leaf>t</leaf><list><!-- c --><item>1</item><other/><item>2</item></list></r>", true);
    XmlNode *leaf = fx.find(f, "leaf"), *list = fx.find(f, "list"), *n = nullptr;
    ASSERT_TRUE(leaf && list);

    // no element children: getChildList fails, the named list is merely empty
    XmlChildList *l = reinterpret_cast<XmlChildList *>(1);
    LogMark mark;
    EXPECT_EQ(0, leaf->getChildList(&l));
    EXPECT_EQ(nullptr, l);
    EXPECT_TRUE(mark.has("getChildList failed"));
    ASSERT_EQ(1, leaf->getNamedChildList(W("item").c_str(), &l));
    EXPECT_EQ(0, l->next(TRUE, &n));
    release(l);

    // all children, the comment passed over, in document order
    ASSERT_EQ(1, list->getChildList(&l));
    std::string names;
    for (BOOL restart = TRUE; l->next(restart, &n); restart = FALSE) {
        names += nameOf(n) + ",";
        EXPECT_EQ(1, n->release());   // the list keeps its own reference
    }
    EXPECT_EQ("item,other,item,", names);
    release(l);

    // by name: next restarts on request
    ASSERT_EQ(1, list->getNamedChildList(W("item").c_str(), &l));
    EXPECT_EQ(2, l->getCount());
    XmlNode *first = nullptr, *second = nullptr, *added = nullptr;
    ASSERT_TRUE(l->next(TRUE, &first));
    ASSERT_TRUE(l->next(FALSE, &second));
    EXPECT_EQ(0, l->next(FALSE, &n));
    ASSERT_TRUE(l->next(TRUE, &n));
    EXPECT_EQ(first, n);
    release(n);

    // add a child: held by the list and by the caller
    ASSERT_EQ(1, l->addChildNode(W("item").c_str(), &added));
    EXPECT_EQ(3, l->getCount());
    EXPECT_EQ(3, added->addRef());
    EXPECT_EQ(2, added->release());
    EXPECT_TRUE(added->setText(W("3").c_str()));

    // remove the first: out of the tree and out of the list
    ASSERT_EQ(1, l->removeNode(list, first));
    EXPECT_EQ(2, l->getCount());
    EXPECT_EQ(0, l->removeNode(list, first));
    EXPECT_TRUE(mark.has("getXmlDomNode failed"));
    EXPECT_EQ(0, l->removeNode(leaf, second));   // not the parent of that child
    EXPECT_TRUE(mark.has("removeNode failed"));
    EXPECT_EQ(0, first->release());
    release(second, added, l);
    EXPECT_EQ(1, f->close());
    EXPECT_EQ("<r><leaf>t</leaf><list><!-- c --><other /><item>2</item><item>3</item></list></r>\n",
              fx.dev.get("\\c.xml"));
}

TEST(XmlFileNew, FileCreateWritesExactBytes) {
    Fixture fx;
    const std::string head = "<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\r\n";
    XmlFile *f = nullptr;
    ASSERT_EQ(1, XmlFile::createNew(W("\\new.xml").c_str(), "settings", &f));
    fx.files.push_back(f);
    EXPECT_EQ(head + "<settings>\r\n</settings>\r\n", fx.dev.get("\\new.xml"));
    EXPECT_NE(nullptr, fx.find(f, "settings"));   // and holds it
    // the virtual operation writes any file, whatever the object holds
    EXPECT_EQ(1, f->fileCreate(W("\\other.xml").c_str(), "x"));
    EXPECT_EQ(head + "<x>\r\n</x>\r\n", fx.dev.get("\\other.xml"));
    // a failed open leaves the platform's last error as it was, and that is what is shown
    os_setLastError(87);
    LogMark mark;
    EXPECT_EQ(0, f->fileCreate(W("\\no such folder\\n.xml").c_str(), "x"));
    EXPECT_TRUE(mark.has("XmlFilePrivate::fileCreate(): Error: 87\tFailed to create file on \\no such folder\\n.xml!"));
}
