// The XML document model: file naming, the size-query contract, searching, child lists, text and
// attributes, the character source (UTF-8, UTF-16 with byte order marks, surrogates, bad bytes),
// saving through the UTF-8 sink, and the new-file writer.
#include "framework/xmlfile.h"
#include "platform/platform.h"
#include "test_device.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

using testing_support::TestDevice;
using testing_support::U;
using testing_support::W;

namespace {

// What the log received after the mark was made.
class LogMark {
public:
    LogMark() { vl_ringBuffer(&m_pos, nullptr); }
    std::string since() const {
        int pos = 0;
        const WCHAR *ring = vl_ringBuffer(&pos, nullptr);
        std::string s = U(ring + m_pos);
        if (pos < m_pos) s += U(ring);
        return s;
    }

private:
    int m_pos = 0;
};

bool contains(const std::string &haystack, const std::string &needle) {
    return haystack.find(needle) != std::string::npos;
}

// UTF-16 bytes of a UTF-16 string, little- or big-endian, with a byte order mark first.
std::string utf16(const std::u16string &s, bool bigEndian) {
    std::string out = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char16_t u : s) {
        char hi = char(u >> 8), lo = char(u & 0xFF);
        out += bigEndian ? std::string{hi, lo} : std::string{lo, hi};
    }
    return out;
}

struct Fixture {
    TestDevice dev;
    Fixture() { g_vlLogSettings.level = LOG_DEBUG; }
    XmlFile *open(const std::string &name, const std::string &bytes, bool writable = false) {
        dev.put(name, bytes);
        XmlFile *f = nullptr;
        std::u16string w = W(name);
        BOOL ok = writable ? XmlFile::createWritable(w.c_str(), &f) : XmlFile::create(w.c_str(), &f);
        return ok ? f : nullptr;
    }
};

// The node of the first element called name, or null.
XmlNode *find(XmlFile *f, const char *name) {
    XmlNode *n = nullptr;
    std::u16string w = W(name);
    return f->getNode(w.c_str(), nullptr, nullptr, &n) ? n : nullptr;
}

std::string text(XmlNode *n) {
    WCHAR buf[512];
    DWORD size = 512;
    return n->getText(buf, &size) ? U(buf) : "<failed>";
}

const char *kDoc =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n"
    "<config>\r\n"
    "  <!-- the upgrade -->\r\n"
    "  <device id=\"d1\">\r\n"
    "    <kernel><upgrade><version>V5</version></upgrade></kernel>\r\n"
    "    <kernel><upgrade><version>V6</version></upgrade></kernel>\r\n"
    "    <region/>\r\n"
    "  </device>\r\n"
    "</config>\r\n";

}  // namespace

TEST(XmlFileCreate, ExtensionRuleAndLoadFailures) {
    Fixture fx;
    fx.dev.put("\\plain.XML", "<a/>");
    fx.dev.put("\\more.xmlx", "<a/>");
    fx.dev.put("\\noext", "<a/>");
    fx.dev.put("\\a.txt", "<a/>");
    fx.dev.put("\\dir.xml\\file", "<a/>");
    struct Case {
        const char *name;
        bool ok;
        const char *message;
    } cases[] = {
        {"\\plain.XML", true, nullptr},
        {"\\more.xmlx", true, nullptr},
        {"\\noext", false, "must specify file extension"},
        {"\\a.txt", false, "unknown extension .txt"},
        // the last '.' anywhere in the path counts, not only in the file's own name
        {"\\dir.xml\\file", true, nullptr},
        {"\\missing.xml", false, "Cannot open \\missing.xml"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        LogMark mark;
        XmlFile *f = reinterpret_cast<XmlFile *>(1);
        std::u16string name = W(c.name);
        EXPECT_EQ(c.ok ? 1 : 0, XmlFile::create(name.c_str(), &f));
        if (c.ok) {
            ASSERT_NE(nullptr, f);
            EXPECT_TRUE(f->isReadOnly());
            EXPECT_EQ(0, f->release());
        } else {
            EXPECT_EQ(nullptr, f);
            std::string log = mark.since();
            EXPECT_TRUE(contains(log, c.message)) << log;
            EXPECT_TRUE(contains(log, std::string("XmlFile::create ") + c.name + " failed")) << log;
        }
    }
    LogMark mark;
    XmlFile *f = nullptr;
    EXPECT_FALSE(XmlFile::create(W("\\missing.xml").c_str(), &f));
    EXPECT_TRUE(contains(mark.since(), "loadXmlFile \\missing.xml failed"));
}

TEST(XmlFileCreate, ReferenceCountStartsAtOneForTheCaller) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", kDoc);
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(2, f->addRef());
    EXPECT_EQ(1, f->release());
    XmlNode *device = find(f, "device");
    ASSERT_NE(nullptr, device);
    EXPECT_EQ(2, device->addRef());
    EXPECT_EQ(1, device->release());
    EXPECT_EQ(0, device->release());
    EXPECT_EQ(0, f->release());
}

TEST(XmlFileCreate, FileNameContract) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", "<a/>");   // 6 characters
    ASSERT_NE(nullptr, f);
    struct Case {
        DWORD size;
        bool ok;
        DWORD sizeAfter;
        bool terminated;
    } cases[] = {
        {7, true, 7, true},
        {6, true, 6, false},   // as long as the buffer: copied without terminator
        {5, false, 6, false},  // needed size is the length, without terminator
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        WCHAR buf[8];
        for (WCHAR &w : buf) w = u'#';
        DWORD size = c.size;
        EXPECT_EQ(c.ok ? 1 : 0, f->getFileName(buf, &size));
        EXPECT_EQ(c.sizeAfter, size);
        if (c.ok) {
            EXPECT_EQ(u"\\a.xml", std::u16string(buf, 6));
            EXPECT_EQ(c.terminated ? u'\0' : u'#', buf[6]);
        } else {
            EXPECT_EQ(u'#', buf[0]);
        }
    }
    f->release();
}

TEST(XmlNodeStrings, SizeQueryContract) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", "<r><device serial=\"ABC-123\">hello big world</device></r>");
    ASSERT_NE(nullptr, f);
    XmlNode *n = find(f, "device");
    ASSERT_NE(nullptr, n);
    enum Op { NAME, ATTRIBUTE, TEXTS, GETNODE };
    struct Case {
        Op op;
        const char *expected;
        const char *message;
    } cases[] = {
        {NAME, "device", "buffer not big enough"},
        {ATTRIBUTE, "ABC-123", "Buffer not big enough"},
        {TEXTS, "hello big world", "buffer not big enough"},
        {GETNODE, "device", "buffer not big enough"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.expected);
        DWORD len = DWORD(std::string(c.expected).size());
        for (DWORD size : {len + 1, len}) {
            std::vector<WCHAR> buf(len + 2, u'#');
            DWORD s = size;
            LogMark mark;
            BOOL ok = 0;
            switch (c.op) {
            case NAME: ok = n->getName(buf.data(), &s); break;
            case ATTRIBUTE: ok = n->getAttribute(W("serial").c_str(), buf.data(), &s); break;
            case TEXTS: ok = n->getText(buf.data(), &s); break;
            case GETNODE: ok = n->getNode(W("device").c_str(), buf.data(), &s); break;
            }
            if (size == len + 1) {
                EXPECT_EQ(1, ok);
                EXPECT_EQ(c.expected, U(buf.data()));
                EXPECT_EQ(size, s);
            } else {
                EXPECT_EQ(0, ok);
                EXPECT_EQ(len + 1, s);
                EXPECT_TRUE(contains(mark.since(), c.message)) << mark.since();
            }
        }
    }
    n->release();
    f->release();
}

TEST(XmlNodeSearch, FindsElementsAnywhereBelowTheTop) {
    Fixture fx;
    struct Case {
        const char *doc;
        const char *name;
        const char *found;   // the name returned, or null when not found
    } cases[] = {
        {kDoc, "//device", "device"},
        {kDoc, "device", "device"},
        {kDoc, "version", "version"},
        {kDoc, "*", "config"},                 // not the declaration
        {"<!-- c --><a/>", "*", "a"},          // not the comment
        {"<device><x/></device>", "//device", "device"},   // the root itself, without declaration
        {kDoc, "Device", nullptr},             // names match with regard to case
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
        BOOL ok = f->getNode(W(c.name).c_str(), buf, &size, &n);
        if (c.found) {
            ASSERT_EQ(1, ok);
            EXPECT_EQ(c.found, U(buf));
            n->release();
        } else {
            EXPECT_EQ(0, ok);
            EXPECT_EQ(nullptr, n);
            EXPECT_TRUE(contains(mark.since(), "getNode failed"));
        }
        f->release();
    }
}

TEST(XmlNodeSearch, CursorSearchStartsAgainFromTheTop) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", kDoc);
    ASSERT_NE(nullptr, f);
    XmlChildList *kernels = nullptr;
    XmlNode *device = find(f, "device");
    ASSERT_NE(nullptr, device);
    ASSERT_TRUE(device->getNamedChildList(W("kernel").c_str(), &kernels));
    XmlNode *first = nullptr, *second = nullptr;
    ASSERT_TRUE(kernels->next(TRUE, &first));
    first->release();
    ASSERT_TRUE(kernels->next(FALSE, &second));
    // a node made from a kernel element searches only below that element
    EXPECT_TRUE(second->getNode(W("version").c_str(), nullptr, nullptr));
    EXPECT_EQ("V6", text(second));
    EXPECT_FALSE(second->getNode(W("region").c_str(), nullptr, nullptr));
    // and the cursor is back on the top after a failed search
    WCHAR name[16];
    DWORD size = 16;
    ASSERT_TRUE(second->getName(name, &size));
    EXPECT_EQ("kernel", U(name));
    second->release();
    kernels->release();
    device->release();
    f->release();
}

TEST(XmlNodeSearchDeathTest, SlashInsideNameEndsProcess) {
    Fixture fx;
    XmlFile *f = fx.open("\\a.xml", kDoc);
    ASSERT_NE(nullptr, f);
    for (const char *name : {"device/kernel", "//config/device"}) {
        SCOPED_TRACE(name);
        XmlNode *n = nullptr;
        EXPECT_EXIT(
            {
                dup2(2, 1);   // the console sink writes to stdout
                g_vlLogSettings.console = 1;
                f->getNode(W(name).c_str(), nullptr, nullptr, &n);
            },
            testing::ExitedWithCode(1), "VLVERIFY\\(wcschr\\(p, L'/'\\)==NULL\\)");
    }
    f->release();
}

TEST(XmlEncoding, CharacterSourceDecodes) {
    Fixture fx;
    const std::u16string clef = u"\U0001D11E";   // a surrogate pair
    std::u16string swapped{clef[1], clef[0]};
    struct Case {
        const char *what;
        std::string bytes;
        std::u16string expected;
    } cases[] = {
        {"utf-8", "<a>h\xC3\xA9llo \xE2\x82\xAC \xF0\x9D\x84\x9E</a>", u"h\u00E9llo \u20AC " + clef},
        {"utf-8 with its own mark", "\xEF\xBB\xBF<a>x</a>", u"x"},
        {"utf-16le", utf16(u"<a>h\u00E9llo \u20AC</a>", false), u"h\u00E9llo \u20AC"},
        {"utf-16be", utf16(u"<a>h\u00E9llo \u20AC</a>", true), u"h\u00E9llo \u20AC"},
        {"pair high-low", utf16(u"<a>" + clef + u"</a>", false), clef},
        {"pair low-high", utf16(u"<a>" + swapped + u"</a>", false), clef},
        {"pair low-high be", utf16(u"<a>" + swapped + u"</a>", true), clef},
        {"mark after text", "<a>x</a>" + utf16(u"<b/>", false), u"x"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        XmlFile *f = fx.open("\\e.xml", c.bytes);
        ASSERT_NE(nullptr, f);
        XmlNode *a = find(f, "a");
        ASSERT_NE(nullptr, a);
        WCHAR buf[64];
        DWORD size = 64;
        ASSERT_TRUE(a->getText(buf, &size));
        EXPECT_EQ(c.expected, std::u16string(buf));
        a->release();
        f->release();
    }
}

TEST(XmlEncoding, BadInputFailsTheLoad) {
    Fixture fx;
    struct Case {
        const char *what;
        std::string bytes;
        bool ok;
    } cases[] = {
        {"missing continuation", "<a>\xC3(</a>", false},
        {"stray continuation", "<a>\x80</a>", false},
        {"five-byte lead", "<a>\xF8\x80\x80\x80\x80</a>", false},
        {"0xFE not a mark", "<a>\xFE\x41</a>", false},
        {"lone surrogate", utf16(u"<a>", false) + std::string("\x00\xD8\x41\x00", 4) + utf16(u"</a>", false).substr(2), false},
        {"odd utf-16 byte", utf16(u"<a/", false) + ">", false},
        {"empty file", "", false},
        {"no element", "just text", false},
        // the bad byte ends the input like the end of the file; the document is already complete
        {"bad byte after the root", "<a/>\x80junk", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        LogMark mark;
        XmlFile *f = fx.open("\\bad.xml", c.bytes);
        EXPECT_EQ(c.ok, f != nullptr);
        if (f) {
            f->release();
        } else {
            EXPECT_TRUE(contains(mark.since(), "mxmlLoadData(\\bad.xml) returned NULL")) << mark.since();
        }
    }
    // Mini-XML's own complaint reaches the log at ERROR
    g_vlLogSettings.level = LOG_ERROR;
    LogMark mark;
    EXPECT_EQ(nullptr, fx.open("\\bad.xml", "<a><b></a>"));
    EXPECT_TRUE(contains(mark.since(), "ERROR, Mismatched close tag")) << mark.since();
}

TEST(XmlEncoding, Utf16FileIsSavedBackAsUtf8) {
    Fixture fx;
    const std::u16string clef = u"\U0001D11E";
    // big enough for several buffers each way, with a pair across the first 8192-byte boundary
    std::u16string filler(4094 - 3, u'\u00E9');   // BOM + "<a>" + filler = 8190 bytes
    std::u16string doc = u"<a>" + filler + clef + u"</a>";
    XmlFile *f = fx.open("\\u.xml", utf16(doc, false), true);
    ASSERT_NE(nullptr, f);
    EXPECT_FALSE(f->isReadOnly());
    EXPECT_EQ(1, f->close());
    f->release();

    std::string expected = "<a>";
    for (size_t i = 0; i < filler.size(); ++i) expected += "\xC3\xA9";
    expected += "\xF0\x9D\x84\x9E</a>\n";
    EXPECT_EQ(expected, fx.dev.get("\\u.xml"));

    // and it reads back the same
    XmlFile *g = nullptr;
    ASSERT_TRUE(XmlFile::create(W("\\u.xml").c_str(), &g));
    XmlNode *a = find(g, "a");
    ASSERT_NE(nullptr, a);
    std::vector<WCHAR> buf(doc.size());
    DWORD size = DWORD(buf.size());
    ASSERT_TRUE(a->getText(buf.data(), &size));
    EXPECT_EQ(filler + clef, std::u16string(buf.data()));
    a->release();
    g->release();
}

TEST(XmlNodeText, JoinsPiecesAndCopiesWhatFits) {
    Fixture fx;
    struct Case {
        const char *element;
        const char *expected;
    } cases[] = {
        {"<a>hello  big\r\n  world</a>", "hello big world"},   // runs of white space become one
        {"<a>  lead</a>", "lead"},                              // not before the first piece
        {"<a>x<b/>y</a>", "xy"},                                // only direct text, no gap
        {"<a>x<b>inner</b>y</a>", "xy"},
        {"<a>x <b/>y</a>", "x y"},
        {"<a>V5 </a>", "V5 "},   // white space before the end tag is a piece of its own
        {"<a/>", ""},
        {"<a>caf&#233; &amp; bar</a>", "caf\xC3\xA9 & bar"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.element);
        XmlFile *f = fx.open("\\t.xml", c.element);
        ASSERT_NE(nullptr, f);
        XmlNode *a = find(f, "a");
        ASSERT_NE(nullptr, a);
        EXPECT_EQ(c.expected, text(a));
        a->release();
        f->release();
    }

    XmlFile *f = fx.open("\\t.xml", "<a>hello big world</a>");
    XmlNode *a = find(f, "a");
    ASSERT_NE(nullptr, a);
    WCHAR buf[8];
    DWORD size = 8;
    EXPECT_EQ(0, a->getText(buf, &size));
    EXPECT_EQ(16u, size);
    EXPECT_EQ("hello b", U(buf));   // as much as fits, terminated
    size = 0;
    buf[0] = u'#';
    EXPECT_EQ(0, a->getText(buf, &size));
    EXPECT_EQ(16u, size);
    EXPECT_EQ(u'#', buf[0]);   // a zero size buffer is not touched
    a->release();
    f->release();
}

TEST(XmlNodeText, SetTextAndItsRefusals) {
    Fixture fx;
    XmlFile *f = fx.open("\\w.xml", "<r><p>old<q>keep</q></p><leaf>one two</leaf></r>", true);
    ASSERT_NE(nullptr, f);
    XmlNode *p = find(f, "p");
    XmlNode *leaf = find(f, "leaf");
    ASSERT_TRUE(p && leaf);

    LogMark mark;
    EXPECT_EQ(0, p->setText(W("new").c_str()));
    EXPECT_TRUE(contains(mark.since(), "node had children, can't set text"));
    EXPECT_EQ("old", text(p));
    EXPECT_EQ(0, p->removeText());
    EXPECT_TRUE(contains(mark.since(), "children for node, can't remove text"));
    EXPECT_EQ("old", text(p));

    EXPECT_EQ(1, leaf->setText(W("three <&> four").c_str()));
    EXPECT_EQ("three <&> four", text(leaf));
    EXPECT_EQ(1, leaf->removeText());
    EXPECT_EQ("", text(leaf));
    EXPECT_EQ(1, leaf->setText(W("five").c_str()));
    p->release();
    leaf->release();
    EXPECT_EQ(1, f->close());
    f->release();

    EXPECT_EQ("<r><p>old<q>keep</q></p><leaf>five</leaf></r>\n", fx.dev.get("\\w.xml"));
}

TEST(XmlNodeText, ReadOnlyFileIsNeverWritten) {
    Fixture fx;
    const std::string original = "<r>\r\n  <leaf>one</leaf>\r\n</r>\r\n";
    XmlFile *f = fx.open("\\ro.xml", original);
    ASSERT_NE(nullptr, f);
    XmlNode *leaf = find(f, "leaf");
    ASSERT_NE(nullptr, leaf);
    EXPECT_EQ(1, leaf->setText(W("changed").c_str()));
    leaf->release();
    EXPECT_EQ(1, f->close());
    // closed: the tree is gone
    XmlNode *n = nullptr;
    EXPECT_EQ(0, f->getNode(W("leaf").c_str(), nullptr, nullptr, &n));
    f->release();
    EXPECT_EQ(original, fx.dev.get("\\ro.xml"));
}

TEST(XmlNodeAttributes, EnumerationMovesOnBeforeTheSizeCheck) {
    Fixture fx;
    XmlFile *f = fx.open("\\at.xml", "<r><e long=\"1\" b=\"22\" c=\"3\"/><none/></r>", true);
    ASSERT_NE(nullptr, f);
    XmlNode *e = find(f, "e");
    ASSERT_NE(nullptr, e);
    WCHAR name[8], value[8];
    DWORD ns = 2, vs = 8;
    EXPECT_EQ(0, e->getNextAttribute(name, &ns, value, &vs, TRUE));   // "long" does not fit
    EXPECT_EQ(5u, ns);
    EXPECT_EQ(1, e->getNextAttribute(name, &ns, value, &vs, FALSE));  // the retry gets the next
    EXPECT_EQ("b", U(name));
    EXPECT_EQ("22", U(value));
    vs = 8;
    EXPECT_EQ(1, e->getNextAttribute(name, &ns, nullptr, &vs, FALSE)); // value buffer may be null
    EXPECT_EQ("c", U(name));
    LogMark mark;
    EXPECT_EQ(0, e->getNextAttribute(name, &ns, value, &vs, FALSE));
    EXPECT_TRUE(contains(mark.since(), "End of the attributes list"));
    ns = 8;
    EXPECT_EQ(1, e->getNextAttribute(name, &ns, value, &vs, TRUE));
    EXPECT_EQ("long", U(name));

    // removal, and the messages of a missing attribute and of an element without any
    EXPECT_EQ(1, e->removeAttribute(W("b").c_str()));
    LogMark mark2;
    EXPECT_EQ(0, e->removeAttribute(W("b").c_str()));
    vs = 8;
    EXPECT_EQ(0, e->getAttribute(W("b").c_str(), value, &vs));
    std::string log = mark2.since();
    EXPECT_TRUE(contains(log, "removeAttribute failed")) << log;
    EXPECT_TRUE(contains(log, "WARNING, Can't find attribute b")) << log;
    XmlNode *none = find(f, "none");
    ASSERT_NE(nullptr, none);
    LogMark mark3;
    EXPECT_EQ(0, none->getAttribute(W("x").c_str(), value, &vs));
    EXPECT_EQ(0, none->getNextAttribute(name, &ns, value, &vs, TRUE));
    EXPECT_EQ(0, none->removeAttribute(W("x").c_str()));
    log = mark3.since();
    size_t count = 0;
    for (size_t at = log.find("no attributes for node"); at != std::string::npos;
         at = log.find("no attributes for node", at + 1))
        ++count;
    EXPECT_EQ(3u, count) << log;
    none->release();
    e->release();
    EXPECT_EQ(1, f->close());
    f->release();
    EXPECT_EQ("<r><e long=\"1\" c=\"3\" /><none /></r>\n", fx.dev.get("\\at.xml"));
}

TEST(XmlChildLists, ListsNextRestartAddAndRemove) {
    Fixture fx;
    XmlFile *f = fx.open("\\c.xml",
                         "<r><leaf>t</leaf><list><!-- c --><item>1</item><other/><item>2</item></list></r>",
                         true);
    ASSERT_NE(nullptr, f);
    XmlNode *leaf = find(f, "leaf");
    XmlNode *list = find(f, "list");
    ASSERT_TRUE(leaf && list);

    // no element children: getChildList fails, the named list is merely empty
    XmlChildList *l = reinterpret_cast<XmlChildList *>(1);
    LogMark mark;
    EXPECT_EQ(0, leaf->getChildList(&l));
    EXPECT_EQ(nullptr, l);
    EXPECT_TRUE(contains(mark.since(), "getChildList failed"));
    ASSERT_EQ(1, leaf->getNamedChildList(W("item").c_str(), &l));
    XmlNode *n = nullptr;
    EXPECT_EQ(0, l->next(TRUE, &n));
    EXPECT_EQ(nullptr, n);
    l->release();

    // all children, the comment passed over, in document order
    ASSERT_EQ(1, list->getChildList(&l));
    std::string names;
    for (BOOL restart = TRUE; l->next(restart, &n); restart = FALSE) {
        WCHAR buf[16];
        DWORD size = 16;
        ASSERT_TRUE(n->getName(buf, &size));
        names += U(buf) + ",";
        EXPECT_EQ(1, n->release());   // the list keeps its own reference
    }
    EXPECT_EQ("item,other,item,", names);
    l->release();

    // by name: next restarts on request
    ASSERT_EQ(1, list->getNamedChildList(W("item").c_str(), &l));
    EXPECT_EQ(2, l->getCount());
    XmlNode *first = nullptr, *second = nullptr;
    ASSERT_TRUE(l->next(TRUE, &first));
    ASSERT_TRUE(l->next(FALSE, &second));
    EXPECT_EQ(0, l->next(FALSE, &n));
    ASSERT_TRUE(l->next(TRUE, &n));
    EXPECT_EQ(first, n);
    n->release();
    EXPECT_EQ("1", text(first));
    EXPECT_EQ("2", text(second));

    // add a child: held by the list and by the caller
    XmlNode *added = nullptr;
    ASSERT_EQ(1, l->addChildNode(W("item").c_str(), &added));
    EXPECT_EQ(3, l->getCount());
    EXPECT_EQ(3, added->addRef());
    EXPECT_EQ(2, added->release());
    EXPECT_TRUE(added->setText(W("3").c_str()));

    // remove the first: out of the tree and out of the list
    ASSERT_EQ(1, l->removeNode(list, first));
    EXPECT_EQ(2, l->getCount());
    EXPECT_EQ(nullptr, first->getXmlDomNode());
    LogMark mark2;
    EXPECT_EQ(0, l->removeNode(list, first));
    EXPECT_EQ(0, l->removeNode(leaf, second));   // not the parent of that child
    std::string log = mark2.since();
    EXPECT_TRUE(contains(log, "getXmlDomNode failed")) << log;
    EXPECT_TRUE(contains(log, "removeNode failed")) << log;
    EXPECT_EQ(0, first->release());
    second->release();
    added->release();
    l->release();
    leaf->release();
    list->release();
    EXPECT_EQ(1, f->close());
    f->release();
    EXPECT_EQ("<r><leaf>t</leaf><list><!-- c --><other /><item>2</item><item>3</item></list></r>\n",
              fx.dev.get("\\c.xml"));
}

TEST(XmlFileNew, FileCreateWritesExactBytes) {
    Fixture fx;
    XmlFile *f = nullptr;
    ASSERT_EQ(1, XmlFile::createNew(W("\\new.xml").c_str(), "settings", &f));
    EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\r\n<settings>\r\n</settings>\r\n",
              fx.dev.get("\\new.xml"));
    XmlNode *root = nullptr;
    WCHAR name[16];
    DWORD size = 16;
    ASSERT_TRUE(f->getNode(W("*").c_str(), name, &size, &root));
    EXPECT_EQ("settings", U(name));
    root->release();

    // the virtual operation writes any file, whatever the object holds
    EXPECT_EQ(1, f->fileCreate(W("\\other.xml").c_str(), "x"));
    EXPECT_EQ("<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\r\n<x>\r\n</x>\r\n",
              fx.dev.get("\\other.xml"));
    // a failed open leaves the platform's last error as it was, and that is what is shown
    os_setLastError(87);
    LogMark mark;
    EXPECT_EQ(0, f->fileCreate(W("\\no such folder\\n.xml").c_str(), "x"));
    std::string log = mark.since();
    EXPECT_TRUE(contains(log, "XmlFilePrivate::fileCreate(): Error: 87\tFailed to create file on "
                              "\\no such folder\\n.xml!"))
        << log;
    f->release();
}
