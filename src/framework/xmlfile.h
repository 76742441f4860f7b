/*
 * The XML document model: XmlFile (one document on disk), XmlNode (a cursor on one element) and
 * XmlChildList (the element children of a node, all of them or those of one name), over Mini-XML.
 *
 * All text crossing these interfaces is wide (WCHAR): element and attribute names, values, text
 * content and file names. Files are read through the framework's file wrappers in UTF-8, or in
 * UTF-16 big- or little-endian when they carry a byte order mark; they are always written as UTF-8.
 *
 * Reference counting: every object carries a signed 16-bit count that starts at 0. Factory functions
 * (XmlFile::create, XmlFile::getNode, getChildList, next, addChildNode...) add one reference before
 * handing the object out; the caller calls release() once when done, and the object destroys itself
 * when its count reaches 0. Nodes and lists are valid only while their XmlFile holds its document.
 *
 * Results are BOOL: 1 success, 0 failure (the reason is in the log). A string result is copied into
 * a caller buffer given with its size in WCHARs through a DWORD pointer. When the text and its
 * terminator do not fit, the needed size (length + 1) is stored through the pointer and the result
 * is 0, so the caller can retry with a bigger buffer; on success the size is left as it was.
 * (getFileName and getText differ slightly; see there.)
 *
 * Typical reading:
 *     XmlFile *file = NULL;
 *     if (XmlFile::create(TEXT("\\upgrade.xml"), &file)) {
 *         XmlNode *device = NULL;
 *         WCHAR name[64]; DWORD size = 64;
 *         if (file->getNode(TEXT("//device"), name, &size, &device)) {
 *             XmlChildList *list = NULL;
 *             if (device->getNamedChildList(TEXT("kernel"), &list)) {
 *                 XmlNode *kernel = NULL;
 *                 if (list->next(TRUE, &kernel)) { ...; kernel->release(); }
 *                 list->release();
 *             }
 *             device->release();
 *         }
 *         file->release();
 *     }
 */
#ifndef TARSK_FRAMEWORK_XMLFILE_H
#define TARSK_FRAMEWORK_XMLFILE_H

#include "sal/winapi.h"

/* Mini-XML's node type (mxml.h is needed only by the implementation). */
typedef struct _mxml_node_s mxml_node_t;

class XmlNode;
class XmlChildList;

/* Object type tags answered by the first virtual operation of each class. */
#define XMLOBJ_FILE 1
#define XMLOBJ_NODE 2
#define XMLOBJ_CHILDLIST 3

/* One XML document on disk. Made only by the static create functions. */
class XmlFile {
public:
    /* Opens and parses an existing file for reading. The name must have an extension that begins
     * with ".xml" (any case). On failure *ppFile is NULL and 0 is returned. */
    static BOOL create(LPCWSTR fileName, XmlFile **ppFile);
    /* The same, but the document is written back to the file by close(). */
    static BOOL createWritable(LPCWSTR fileName, XmlFile **ppFile);
    /* Writes a new file holding only the declaration and an empty root element (fileCreate), then
     * opens it writable. */
    static BOOL createNew(LPCWSTR fileName, const char *rootName, XmlFile **ppFile);

    virtual int getObjectType() const = 0;          /* XMLOBJ_FILE */
    virtual SHORT addRef() = 0;                     /* returns the new count */
    virtual SHORT release() = 0;                    /* destroys at 0; returns the new count */
    virtual void destroy() = 0;                     /* frees the tree (without writing) and itself */
    /* Writable and loaded: writes the document to its file as UTF-8. Always frees the tree.
     * 1 unless the write failed. */
    virtual BOOL close() = 0;
    virtual BOOL isReadOnly() const = 0;
    /* Finds the first element called name anywhere in the document ("*" any element; leading '/'
     * are skipped, so "//device" works; a further '/' ends the process, see XmlNode::getNode).
     * Returns a new node positioned on it; its name goes to nameBuf when nameBuf is not NULL. */
    virtual BOOL getNode(LPCWSTR name, WCHAR *nameBuf, DWORD *pNameSize, XmlNode **ppNode) = 0;
    /* The file name. Succeeds when its length is at most *pSize (a name exactly as long as the buffer
     * is copied without a terminator); on failure stores the length WITHOUT terminator in *pSize. */
    virtual BOOL getFileName(WCHAR *buf, DWORD *pSize) = 0;
    /* A new node on the document's top (above the root element). */
    virtual BOOL getDocumentNode(XmlNode **ppNode) = 0;
    /* Writes a new file with exactly
     *   <?xml version="1.0" encoding="utf-8" standalone="yes"?>\r\n<ROOT>\r\n</ROOT>\r\n
     * Does not touch this object's document. */
    virtual BOOL fileCreate(LPCWSTR fileName, const char *rootName) = 0;

protected:
    XmlFile() {}
    ~XmlFile() {}

private:
    XmlFile(const XmlFile &);
    XmlFile &operator=(const XmlFile &);
};

/* A cursor on one element. Its "top" is the element (or document) it was made from; searches with
 * getNode look only below the top and move the cursor. */
class XmlNode {
public:
    /* Internal: a node on an element of the tree (refuses NULL). */
    static BOOL create(mxml_node_t *pMxmlNode, XmlNode **ppNode);

    virtual int getObjectType() const;              /* XMLOBJ_NODE */
    virtual SHORT addRef();
    virtual SHORT release();
    virtual void destroy();
    /* The current element's name. */
    virtual BOOL getName(WCHAR *buf, DWORD *pSize);
    /* The value of attribute name. */
    virtual BOOL getAttribute(LPCWSTR name, WCHAR *buf, DWORD *pSize);
    /* Enumerates the attributes in stored order; restart goes back to the first. valueBuf may be
     * NULL. The position advances before the copy, so after a "too small" failure a retry returns
     * the NEXT attribute (restart to get the first again). */
    virtual BOOL getNextAttribute(WCHAR *nameBuf, DWORD *pNameSize, WCHAR *valueBuf,
                                  DWORD *pValueSize, BOOL restart);
    /* The element's direct text joined in order, one space before each piece after the first that
     * was preceded by white space. The buffer is cleared first; when the text is too long as much as
     * fits is copied (terminated), the needed size is stored and 0 is returned. */
    virtual BOOL getText(WCHAR *buf, DWORD *pSize);
    /* Sets (adds or replaces) an attribute. */
    virtual BOOL setAttribute(LPCWSTR name, LPCWSTR value);
    /* Moves the cursor to the first element called name below the top, in document order ("*" any
     * element other than comments). Leading '/' are skipped; the rest must be one element name: a
     * further '/' is a VLVERIFY failure (the process ends). The found name goes to nameBuf when
     * nameBuf is not NULL. Not found: 0, cursor back on the top. */
    virtual BOOL getNode(LPCWSTR name, WCHAR *nameBuf, DWORD *pNameSize);
    /* Replaces the element's text; refused (0) when it has element children. */
    virtual BOOL setText(LPCWSTR text);
    /* Whether the current element has element children. */
    virtual BOOL hasChildren();
    virtual BOOL removeAttribute(LPCWSTR name);
    /* Removes the element's text children; refused (0) when it has element children. */
    virtual BOOL removeText();

    /* All element children (comments passed over). Fails when there are none. */
    BOOL getChildList(XmlChildList **ppList);
    /* The element children called name (case matters). The list may be empty. */
    BOOL getNamedChildList(LPCWSTR name, XmlChildList **ppList);

    /* Internal: the current element, and the top of the searches. NULL after removal. */
    mxml_node_t *getXmlDomNode() const { return m_pCurrent; }
    mxml_node_t *getXmlDomTop() const { return m_pTop; }
    /* Internal: forgets the tree (the element was deleted). */
    void detach();

protected:
    XmlNode(mxml_node_t *pTop);
    ~XmlNode() {}
    /* Allocated through the framework's allocator. */
    static void *operator new(size_t size) throw();
    static void operator delete(void *p);
    BOOL initialise();

    mxml_node_t *m_pTop;        /* the node it was made from: the top of its searches */
    mxml_node_t *m_pCurrent;    /* the cursor */
    BOOL m_bHasChildren;        /* from initialise: the current element has element children */
    int m_nAttributes;          /* from initialise: the current element's attribute count */
    int m_nAttributePos;        /* the attribute enumeration's position */
    SHORT m_nRefCount;

private:
    XmlNode(const XmlNode &);
    XmlNode &operator=(const XmlNode &);
    friend class XmlChildList;
};

/* The element children of one element, in document order, each held as an XmlNode. */
class XmlChildList {
public:
    /* Internal: lists the element children of pParent (comments passed over), only those called
     * name when name is not NULL. */
    static BOOL create(mxml_node_t *pParent, LPCWSTR name, XmlChildList **ppList);

    virtual int getObjectType() const;              /* XMLOBJ_CHILDLIST */
    virtual SHORT addRef();
    virtual SHORT release();
    virtual void destroy();
    /* The next item (restart: the first), with one more reference for the caller; 0 past the end. */
    virtual BOOL next(BOOL restart, XmlNode **ppNode);
    /* Makes a new element child called name at the end of the parent, lists it and returns it. */
    virtual BOOL addChildNode(LPCWSTR name, XmlNode **ppNode);
    /* Deletes a listed child element of parent from the tree and drops it from the list. */
    virtual BOOL removeNode(XmlNode *pParent, XmlNode *pChild);
    virtual int getCount() const;

protected:
    XmlChildList(mxml_node_t *pParent);
    ~XmlChildList() {}
    static void *operator new(size_t size) throw();
    static void operator delete(void *p);
    BOOL append(XmlNode *pNode);

    mxml_node_t *m_pTop;        /* the listed children's parent */
    XmlNode **m_ppNodes;        /* one reference held per listed element */
    int m_nCount;
    int m_nCursor;
    int m_nCapacity;
    SHORT m_nRefCount;

private:
    XmlChildList(const XmlChildList &);
    XmlChildList &operator=(const XmlChildList &);
};

#endif /* TARSK_FRAMEWORK_XMLFILE_H */
