// The timed event record and the pointer lists that carry records through the library.
#ifndef QUAVIX_QXEVENTDATA_H
#define QUAVIX_QXEVENTDATA_H

#include <quavix/QXExport.h>

#include <quavix/QXRecords.h>

#include <cstddef>
#include <new>

// Opaque position inside a CQXPtrList: the address of a node, or null past either end.
struct QXPositionTag {};
typedef QXPositionTag* POSITION;

// A doubly linked list of pointers whose nodes come from blocks of nBlockSize, reused
// through a free list, so that moving events between lists never allocates per event.
// The list does not own what its elements point to.
template <class T>
class QUAVIX_API CQXPtrList {
public:
    explicit CQXPtrList(int nBlockSize = 10) : m_nBlockSize(nBlockSize < 1 ? 1 : nBlockSize) {}
    ~CQXPtrList() { RemoveAll(); }
    CQXPtrList(const CQXPtrList&) = delete;
    CQXPtrList& operator=(const CQXPtrList&) = delete;

    int GetCount() const { return m_nCount; }
    bool IsEmpty() const { return m_nCount == 0; }

    T*& GetHead() { return m_pHead->data; }
    T* GetHead() const { return m_pHead->data; }
    T*& GetTail() { return m_pTail->data; }
    T* GetTail() const { return m_pTail->data; }

    // Null when the list could not grow (out of memory).
    POSITION AddHead(T* p) { return Link(nullptr, m_pHead, p); }
    POSITION AddTail(T* p) { return Link(m_pTail, nullptr, p); }
    POSITION InsertBefore(POSITION pos, T* p) {
        if (pos == nullptr) return AddHead(p);
        Node* n = N(pos);
        return Link(n->prev, n, p);
    }
    POSITION InsertAfter(POSITION pos, T* p) {
        if (pos == nullptr) return AddTail(p);
        Node* n = N(pos);
        return Link(n, n->next, p);
    }

    // Null from an empty list.
    T* RemoveHead() {
        if (m_pHead == nullptr) return nullptr;
        T* p = m_pHead->data;
        Unlink(m_pHead);
        return p;
    }
    T* RemoveTail() {
        if (m_pTail == nullptr) return nullptr;
        T* p = m_pTail->data;
        Unlink(m_pTail);
        return p;
    }
    void RemoveAt(POSITION pos) {
        if (pos != nullptr) Unlink(N(pos));
    }

    void RemoveAll() {
        m_pHead = m_pTail = m_pFree = nullptr;
        m_nCount = 0;
        Block* b = m_pBlocks;
        while (b != nullptr) {
            Block* next = b->next;
            ::operator delete(b);
            b = next;
        }
        m_pBlocks = nullptr;
    }

    POSITION GetHeadPosition() const { return P(m_pHead); }
    POSITION GetTailPosition() const { return P(m_pTail); }
    T*& GetNext(POSITION& pos) {
        Node* n = N(pos);
        pos = P(n->next);
        return n->data;
    }
    T*& GetPrev(POSITION& pos) {
        Node* n = N(pos);
        pos = P(n->prev);
        return n->data;
    }
    T*& GetAt(POSITION pos) { return N(pos)->data; }
    void SetAt(POSITION pos, T* p) { N(pos)->data = p; }

    // First position holding p, searching from after startAfter (or the head).
    POSITION Find(T* p, POSITION startAfter = nullptr) const {
        Node* n = startAfter ? N(startAfter)->next : m_pHead;
        for (; n != nullptr; n = n->next)
            if (n->data == p) return P(n);
        return nullptr;
    }

private:
    struct Node {
        Node* next;
        Node* prev;
        T* data;
    };
    struct Block {
        Block* next;
        // Nodes follow the header in the same allocation.
        Node* Nodes() { return reinterpret_cast<Node*>(this + 1); }
    };
    static_assert(alignof(Node) <= alignof(Block), "nodes follow the block header");

    static Node* N(POSITION pos) { return reinterpret_cast<Node*>(pos); }
    static POSITION P(Node* n) { return reinterpret_cast<POSITION>(n); }

    POSITION Link(Node* prev, Node* next, T* p) {
        if (m_pFree == nullptr && !Grow()) return nullptr;
        Node* n = m_pFree;
        m_pFree = n->next;
        n->prev = prev;
        n->next = next;
        n->data = p;
        (prev ? prev->next : m_pHead) = n;
        (next ? next->prev : m_pTail) = n;
        ++m_nCount;
        return P(n);
    }
    void Unlink(Node* n) {
        (n->prev ? n->prev->next : m_pHead) = n->next;
        (n->next ? n->next->prev : m_pTail) = n->prev;
        n->next = m_pFree;
        m_pFree = n;
        // An emptied list gives its blocks back, as a fresh list would have none.
        if (--m_nCount == 0) RemoveAll();
    }
    bool Grow() {
        void* mem = ::operator new(sizeof(Block) + sizeof(Node) * static_cast<size_t>(m_nBlockSize), std::nothrow);
        if (mem == nullptr) return false;
        Block* b = static_cast<Block*>(mem);
        b->next = m_pBlocks;
        m_pBlocks = b;
        Node* nodes = b->Nodes();
        for (int i = m_nBlockSize - 1; i >= 0; --i) {
            nodes[i].next = m_pFree;
            m_pFree = &nodes[i];
        }
        return true;
    }

    Node* m_pHead = nullptr;
    Node* m_pTail = nullptr;
    Node* m_pFree = nullptr;
    Block* m_pBlocks = nullptr;
    int m_nCount = 0;
    int m_nBlockSize;
};

class QUAVIX_API CQXEventData {
public:
    CQXEventData() = default;
    ~CQXEventData();
    // Member-wise: a SysEx or wave-data copy shares its payload with the source, so
    // only one of the two may be destroyed with it. The library itself never copies.
    CQXEventData& operator=(const CQXEventData& src);
    CQXEventData(const CQXEventData&) = delete;

    void SetMidiData(DWORD dwMsg);
    void SetSysExData(const BYTE* pData, DWORD dwLength);
    void SetWaveData(QX_WaveParams* pParams);
    void SetWaveStart(QX_WaveParams* pParams);
    void SetWaveHeader(WAVEHDR* pHeader);
    void SetFileMeta(DWORD dwValue);
    void SetDevChan(int nDevice, int nChannel);
    void SetDevice(int nDevice) { m_nDevice = nDevice; }
    void SetTimeStamp(DWORD dwTime) { m_dwTimeStamp = dwTime; }

    int m_nType = QX_EVENT_NONE;
    DWORD m_dwTimeStamp = 0;
    int m_nDevice = 0;
    DWORD m_dwStreamWords = 0;
    DWORD_PTR m_dwData = 0;   // wide enough for the pointers some kinds carry
    DWORD_PTR m_dwLength = 0; // likewise: the wave player of a wave start event
};

class QUAVIX_API CQXEventList : public CQXPtrList<CQXEventData> {
public:
    explicit CQXEventList(int nBlockSize = 10) : CQXPtrList<CQXEventData>(nBlockSize) {}
};

#endif // QUAVIX_QXEVENTDATA_H
