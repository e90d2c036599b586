// The one intrusive list of the runtime: circular, doubly linked, nothing allocated.
//
// A record that can be listed has a link member; it is on at most one list through that link. A link that is
// on no list has both pointers null, so "is it linked" needs no second flag. A list knows nothing of locks:
// whoever owns it says which lock guards it.
#ifndef BP_BP_LIST_H
#define BP_BP_LIST_H

#include <cstddef>

struct BP_ListNode {
    BP_ListNode *pstNext = nullptr;
    BP_ListNode *pstPrev = nullptr;
};

// Makes the link a ring of one: the state of an empty list's head.
inline void BP_ListNodeRing(BP_ListNode *pstNode) {
    pstNode->pstNext = pstNode;
    pstNode->pstPrev = pstNode;
}

inline void BP_ListNodeInsertAfter(BP_ListNode *pstWhere, BP_ListNode *pstNode) {
    pstNode->pstNext = pstWhere->pstNext;
    pstNode->pstPrev = pstWhere;
    pstWhere->pstNext->pstPrev = pstNode;
    pstWhere->pstNext = pstNode;
}

// Joins the neighbours and nulls the link. The link must be in a ring.
inline void BP_ListNodeRemove(BP_ListNode *pstNode) {
    pstNode->pstPrev->pstNext = pstNode->pstNext;
    pstNode->pstNext->pstPrev = pstNode->pstPrev;
    *pstNode = BP_ListNode();
}

inline bool BP_ListNodeLinked(const BP_ListNode *pstNode) {
    return pstNode->pstNext != nullptr && pstNode->pstPrev != nullptr;
}

// The record that holds the link at the given offset.
template <typename T>
T *BP_ListOwner(BP_ListNode *pstNode, std::size_t ulOffset) {
    return reinterpret_cast<T *>(reinterpret_cast<char *>(pstNode) - ulOffset);
}

// A list of records T, linked through their member stNode.
template <typename T>
struct BP_List {
    BP_ListNode stHead;

    BP_List() { Init(); }
    BP_List(const BP_List &) = delete;
    BP_List &operator=(const BP_List &) = delete;

    // Forgets the elements without touching them.
    void Init() { BP_ListNodeRing(&stHead); }
    bool Empty() const { return stHead.pstNext == &stHead; }

    void PushFront(T *pstElem) { BP_ListNodeInsertAfter(&stHead, &pstElem->stNode); }
    void PushBack(T *pstElem) { BP_ListNodeInsertAfter(stHead.pstPrev, &pstElem->stNode); }
    static void Remove(T *pstElem) { BP_ListNodeRemove(&pstElem->stNode); }
    static bool Linked(const T *pstElem) { return BP_ListNodeLinked(&pstElem->stNode); }

    // The first element, or the one behind pstElem; null at the end.
    T *First() const { return At(stHead.pstNext); }
    T *Next(const T *pstElem) const { return At(pstElem->stNode.pstNext); }

    // Takes the first element off the list; null when there is none.
    T *PopFront() {
        T *pstElem = First();
        if (pstElem != nullptr) {
            Remove(pstElem);
        }
        return pstElem;
    }

private:
    T *At(BP_ListNode *pstNode) const {
        return pstNode == &stHead ? nullptr : BP_ListOwner<T>(pstNode, offsetof(T, stNode));
    }
};

#endif
