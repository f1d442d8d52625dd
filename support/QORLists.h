#pragma once

#include <vector>

#include "support/QORUnicodeString.h"

/** What RemoveAll does with a collection's own storage. Pointed-to objects are never deleted. */
struct QORCollec {
    enum MemoryHandling { KeepMemory, ReleaseMemory };
};

/** An ordered list of texts, owning its copies. Positions are 1-based. */
class QORListValQORUnicodeString
{
public:
    void Append(const QORUnicodeString& text) { texts_.push_back(text); }
    void Append(QORUnicodeString&& text) { texts_.push_back(std::move(text)); }
    int Size() const { return static_cast<int>(texts_.size()); }
    QORUnicodeString& operator[](int position) { return texts_[static_cast<size_t>(position - 1)]; }
    const QORUnicodeString& operator[](int position) const
    {
        return texts_[static_cast<size_t>(position - 1)];
    }
    void RemoveAll(QORCollec::MemoryHandling handling);

private:
    std::vector<QORUnicodeString> texts_;
};

/**
 * An ordered list of pointers that it does not own: who appends an object deletes it. Positions are
 * 1-based. To delete while walking: delete the object, put a null into its slot, and call RemoveNulls()
 * once after the walk, so that positions do not shift under the walker.
 */
template <class T>
class QORListPtr
{
public:
    explicit QORListPtr(int initialCapacity) { pointers_.reserve(static_cast<size_t>(initialCapacity)); }

    void Append(T* pointer) { pointers_.push_back(pointer); }
    /** The next Append() needs no memory. */
    void MakeRoom()
    {
        if (pointers_.size() == pointers_.capacity())
            pointers_.reserve(2 * pointers_.size() + 1);
    }
    int Size() const { return static_cast<int>(pointers_.size()); }
    T*& operator[](int position) { return pointers_[static_cast<size_t>(position - 1)]; }
    T* operator[](int position) const { return pointers_[static_cast<size_t>(position - 1)]; }
    /** Drops one slot; those behind it move up. */
    void RemoveAt(int position) { pointers_.erase(pointers_.begin() + (position - 1)); }
    /** Drops every null slot; the others keep their order. */
    void RemoveNulls() { std::erase(pointers_, nullptr); }
    void RemoveAll(QORCollec::MemoryHandling handling)
    {
        pointers_.clear();
        if (handling == QORCollec::ReleaseMemory)
            pointers_.shrink_to_fit();
    }

private:
    std::vector<T*> pointers_;
};

/** The untyped collection, of which the typed lists are the type-safe form. */
using QORRawCollPV = QORListPtr<void>;

class BaseSocket;
using QORListPtrBaseSocket = QORListPtr<BaseSocket>;
