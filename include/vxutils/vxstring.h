/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** `String` is the text class of the C++ interface: a sequence of bytes with reference-counted
 * copy-on-write. A String has the size of a pointer, and a copy costs one increment. strutil.h works on plain C texts.
 *
 * **Example.**
 * @code
 * String name("eth");
 * name += '0';
 * String path;
 * path.format("/sys/class/net/%s/mtu", name.c_str());  // c_str(): the compiler refuses a String as an argument
 * if (path.endsWith("mtu")) puts(path.c_str());        // prints /sys/class/net/eth0/mtu
 * name.format("%lu", (unsigned long)sizeof path);      // not %zu: format() lists the conversions that it understands
 * @endcode
 *
 * **Texts.** A text is any sequence of bytes, always followed by a NUL. It may hold NULs, but comparisons by `strcmp`
 * and `stricmp`, toInteger() and substring() with an end see it only up to the first one. indexOf() sees its text from
 * the starting position to the next NUL, and a text to look for up to its first NUL. The other searches see all of
 * both, except that those that ignore the case compare by `strnicmp`. Case is folded for `A`..`Z` only, whatever the
 * locale. A position out of range is never an error: each operation says what it does then.
 *
 * **Ownership.** Copies share one block (String::StringBuffer). An operation that changes a String with a shared block
 * gives it a block of its own first. c_str() is valid until the next change or the end of the String. An argument may
 * point into the String that it changes: `s += s.c_str() + 3` and `s.insert(1, s)` work.
 *
 * **Threads, signals, fork.** The counts of references are plain integers: a String and all copies of it belong to one
 * thread. Give another thread a text of its own, `String(s.c_str())`. Empty Strings may be made in any thread, although
 * they share one buffer: its text is never written and it is never freed. Not for signal handlers. After fork() the
 * child has copies of its own.
 *
 * **Blocking.** No call blocks.
 *
 * **Errors.** The process is aborted when there is no memory for a text, or when a text would be longer than the limit.
 * No operation throws.
 *
 * **Limits.** Lengths and positions are `long` and count bytes; a text is at most 2^31 - 1 bytes long. A formatted text
 * that would be longer counts as empty.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q1 compareTo() is seen from the argument; Q2
 * lastIndexOf() of a longer text; Q3 a negative start does not shorten a piece; Q4 format() measures with strlenf().
 */
#ifndef VXUTILS_VXSTRING_H
#define VXUTILS_VXSTRING_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <vxutils/api.h>

/** A text: a value that is cheap to copy. See the top of this file for threads, ownership and NULs inside. */
class VXUTILS_API String {
public:
    /**
     * The block that Strings share: one `malloc` for three numbers and the text. It is public because inline functions
     * in shipped programs read it.
     *
     * A block for a text of n bytes has room for A bytes, the NUL included. For n < 128, A is (n + 8) with its low four
     * bits cleared, plus 8; else it is (n - 64) with its low six bits cleared, plus 128. The capacity is A - 1.
     */
    struct VXUTILS_API StringBuffer {
        int32_t refCount; /**< Strings that point here; the shared empty buffer has one reference more. */
        int32_t capacity; /**< Longest text that fits. */
        int32_t length;   /**< Bytes of the text, its NUL not counted. */
        char text[1];     /**< In fact capacity + 1 bytes; text[length] is NUL. */

        /** @return the shared empty buffer: its capacity is 0; it is never freed and its text never written. */
        static StringBuffer *EMPTY();
    };

    /** @name Construction and assignment
     * @{ */

    /** Hold the empty text: share the empty buffer. */
    String();

    /**
     * Share the other's block.
     * @param other  the other String
     */
    VXUTILS_API String(const String &other) : buffer_(other.buffer_) { addToCount(buffer_, 1); }

    /**
     * Hold one character, in a block of capacity 7; NUL gives the shared empty buffer.
     * @param c  the character
     */
    String(char c);

    /**
     * Copy @p s; NULL or an empty text gives the shared empty buffer.
     * @param s  the text
     */
    String(const char *s);

    /**
     * Copy @p s into a block made for at least @p capacity bytes, so that it can grow without moving. An empty @p s
     * gets a block as well; only NULL gives the shared empty buffer.
     * @param s         the text
     * @param capacity  bytes that have to fit
     */
    String(const char *s, long capacity);

    /**
     * Copy a piece of @p s: @p count bytes from @p start on, or as many as there are. An empty piece gives the shared
     * empty buffer.
     * @param s      the text; NULL gives the shared empty buffer
     * @param start  where the piece begins; a negative value counts as 0, one after the end as the end
     * @param count  most bytes to copy; a negative @p start does not reduce it
     */
    String(const char *s, long start, long count);

    /** Give the block back; the last of its Strings frees it. */
    VXUTILS_API ~String() { release(buffer_); }

    /** Share the other's block; no effect when both are the same object. */
    String &operator=(const String &other);

    /** Hold one character, always in a new block of capacity 7; NUL gives the shared empty buffer. */
    String &operator=(char c);

    /** Copy @p s, in place if the block is unshared and large enough; NULL gives the shared empty buffer. */
    String &operator=(const char *s);

    /**
     * Return String(c).
     * @param c  the character
     * @return the new String
     */
    static String stringOf(char c);
    /**
     * Return String(s).
     * @param s  the text
     * @return the new String
     */
    static String stringOf(const char *s);
    /**
     * Return String(s, start, count).
     * @param s      the text
     * @param start  position of the first byte
     * @param count  number of bytes
     * @return the new String
     */
    static String stringOf(const char *s, long start, long count);
    /**
     * Write the number in decimal.
     * @param number  the number
     * @return the new String
     */
    static String stringOf(long number);
    /**
     * Write the number in decimal.
     * @param number  the number
     * @return the new String
     */
    static String stringOf(unsigned long number);
    /**
     * Write the address as `printf` does with `%p`.
     * @param pointer  the address
     * @return the new String
     */
    static String stringOf(void *pointer);
    /**
     * Write "true" or "false".
     * @param value  the value
     * @return the new String
     */
    static String stringOf(bool value);

    /** @return an empty String that lives until the process exits. */
    static const String &EMPTY();

    /** @} */
    /** @name Queries
     * @{ */

    /** @return the bytes of the text, its NUL not counted. */
    long length() const { return buffer_->length; }

    /** @return the text, NUL-terminated; valid until the next change or the end of this String. */
    const char *c_str() const { return buffer_->text; }

    /**
     * Compare two texts, seen from the argument: positive when @p other sorts after this text, 0 when they are equal,
     * negative when it sorts before it (`strcmp(other, this)`).
     * @param other  the other String
     * @return the order
     */
    int compareTo(const String &other) const;
    /**
     * Compare two texts with `stricmp`, as compareTo().
     * @param other  the other String
     * @return -1, 0 or 1
     */
    int compareToIgnoreCase(const String &other) const;

    /**
     * @param other  the other String
     * @return whether both texts are the same bytes, NULs inside included.
     */
    bool equals(const String &other) const;
    /**
     * @param s  the text
     * @return whether `strcmp` finds them equal; NULL equals an empty text.
     */
    bool equals(const char *s) const;
    /**
     * @param other  the other String
     * @return whether both have the same length and `strnicmp` finds them equal.
     */
    bool equalsIgnoreCase(const String &other) const;
    /**
     * @param s  the text
     * @return whether `stricmp` finds them equal; NULL equals an empty text.
     */
    bool equalsIgnoreCase(const char *s) const;

    /**
     * @param prefix  text to compare with
     * @return whether the text begins with @p prefix; true for an empty one.
     */
    bool startsWith(const String &prefix) const;
    /**
     * @param prefix  text to compare with
     * @param offset  position in this text
     * @return whether @p prefix is at @p offset; false for a negative offset or when it would reach beyond the end.
     */
    bool startsWith(const String &prefix, long offset) const;
    /**
     * @param suffix  text to compare with
     * @return whether the text ends with @p suffix; true for an empty one.
     */
    bool endsWith(const String &suffix) const;

    /**
     * Compare @p count bytes of this text from @p offset on with those of @p other from @p otherOffset on.
     * @param ignoreCase   true to ignore the case of A to Z
     * @param offset       position in this text
     * @param other        the other String
     * @param otherOffset  position in @p other
     * @param count        number of bytes
     * @return false when a number is negative or either piece reaches beyond its text; else whether `strncmp`, or
     *         `strnicmp` with @p ignoreCase, finds the pieces equal.
     */
    bool regionMatches(bool ignoreCase, long offset, const String &other, long otherOffset, long count) const;
    /**
     * Compare regions as the function above does with @p ignoreCase false.
     * @param offset       position in this text
     * @param other        the other String
     * @param otherOffset  position in @p other
     * @param count        number of bytes
     * @return whether the pieces are equal
     */
    bool regionMatches(long offset, const String &other, long otherOffset, long count) const;

    /**
     * Copy the bytes from @p begin up to, not including, @p end. A position outside of the text counts as the nearest
     * one inside.
     * @param begin  position of the first byte
     * @param end    position after the last byte
     * @param dst    receives the bytes, without a NUL; has room for all of them. NULL copies nothing.
     * @return the number of bytes copied
     */
    long getChars(long begin, long end, char *dst) const;

    /** @return the byte at @p index; NUL for an index outside of the text. */
    VXUTILS_API char operator[](long index) const {
        return index < 0 || index >= length() ? '\0' : buffer_->text[index];
    }

    /** @return the object itself. */
    const String &operator*() const;

    /**
     * Read the number at the beginning of the text as `sscanf` does with `%i`: decimal, octal after "0", hexadecimal
     * after "0x".
     * @return the number, or the nearest int when it is out of range; -1 when there is no number
     */
    int toInteger() const;

    /**
     * @param begin  position of the first byte
     * @return the text from @p begin to its end; empty when @p begin is negative or not inside the text.
     */
    String substring(long begin) const;

    /**
     * Copy the piece from @p begin up to, not including, @p end. It ends at the text's first NUL at the latest. A
     * negative @p begin starts at 0 without shortening the piece: `substring(-2, 3)` gives the first five bytes (Quirk
     * Q3).
     * @param begin  position of the first byte
     * @param end    position after the last byte
     * @return the piece; empty unless @p begin is below @p end, below the length and not after the first NUL.
     */
    String substring(long begin, long end) const;

    /** @} */
    /** @name Search
     * Each returns a position, or -1 when there is none.
     * @{ */

    /**
     * Find the first @p c.
     * @param c  character to look for; NUL is never found
     * @return the position, or -1
     */
    long indexOf(char c) const;
    /**
     * Find the first @p c at or after @p from; a negative @p from counts as 0.
     * @param c     character to look for
     * @param from  position to start at
     * @return the position, or -1
     */
    long indexOf(char c, long from) const;
    /**
     * Find the first occurrence of @p s.
     * @param s  text to look for; an empty one is found at 0
     * @return the position, or -1
     */
    long indexOf(const String &s) const;
    /**
     * Find the first occurrence of @p s at or after @p from; a negative @p from counts as 0.
     * @param s     text to look for
     * @param from  position to start at
     * @return the position, or -1
     */
    long indexOf(const String &s, long from) const;
    /**
     * Search as indexOf(const String &), case ignored.
     * @param s  text to look for
     * @return the position, or -1
     */
    long indexOfIgnoreCase(const String &s) const;
    /**
     * Search as indexOf(const String &, long), case ignored.
     * @param s     text to look for
     * @param from  position to start at
     * @return the position, or -1
     */
    long indexOfIgnoreCase(const String &s, long from) const;

    /**
     * Find the last @p c.
     * @param c  character to look for
     * @return the position, or a negative number
     */
    long lastIndexOf(char c) const;
    /**
     * Find the last @p c at or before @p from; a negative @p from finds nothing.
     * @param c     character to look for
     * @param from  position to start at
     * @return the position, or a negative number
     */
    long lastIndexOf(char c, long from) const;
    /**
     * Find the last occurrence of @p s.
     * @param s  text to look for; an empty one is found at the end
     * @return the position, or a negative number: -1, or for an @p s longer than the text the difference of the lengths
     *         (Quirk Q2)
     */
    long lastIndexOf(const String &s) const;
    /**
     * Find the last occurrence of @p s at or before @p from; a negative @p from finds nothing, and a longer @p s gives
     * a negative number as above.
     * @param s     text to look for
     * @param from  position to start at
     * @return the position, or a negative number
     */
    long lastIndexOf(const String &s, long from) const;
    /**
     * Search as lastIndexOf(const String &), case ignored.
     * @param s  text to look for
     * @return the position, or a negative number
     */
    long lastIndexOfIgnoreCase(const String &s) const;
    /**
     * Search as lastIndexOf(const String &, long), case ignored.
     * @param s     text to look for
     * @param from  position to start at
     * @return the position, or a negative number
     */
    long lastIndexOfIgnoreCase(const String &s, long from) const;

    /** @} */
    /** @name Changes
     * Each works in place if the block is unshared and large enough. Otherwise a text that grows or shrinks goes into a
     * block for its new length, and a text that keeps its length into one of the same capacity.
     * @{ */

    /**
     * Append @p s.
     * @param s  the text
     * @return this String
     */
    String &concat(const String &s);
    /**
     * Append @p count bytes of @p bytes, NULs included. No effect for NULL or a count below 1.
     * @param bytes  bytes to append
     * @param count  number of bytes
     * @return this String
     */
    String &concat(const char *bytes, long count);
    /** Append @p s. */
    String &operator+=(const String &s);
    /** Append @p s; no effect for NULL. */
    String &operator+=(const char *s);
    /** Append @p c; no effect for NUL. */
    VXUTILS_API String &operator+=(char c) {
        if (countOf(buffer_) > 1 || buffer_->length >= buffer_->capacity || c == '\0') return concatCharacter(c);
        char *end = buffer_->text + buffer_->length++;
        end[0] = c;
        end[1] = '\0';
        return *this;
    }

    /**
     * Replace the text by a formatted one. The compiler checks the arguments as it does for printf, and the same rule
     * holds here: a String is passed as `text.c_str()`.
     *
     * Use only the conversions `d i u x X o c s p %`, with the flags `-`, `+`, `#`, `0` and blank, width and precision,
     * and the lengths `h` and `l` of numbers. Pass a `size_t` as `%lu` with a cast to `unsigned long`, and a `double`
     * or a `long long` as a text. The reason (Quirk Q4): the length comes from strlenf() (xprintf.h) and the bytes from
     * the system's `vsnprintf`. A conversion that only the latter knows (`%zu`, `%lld`, `%hhu`, `%f`, `%e`, `%g`,
     * `%'d`) is measured without its argument, `%ls` and `%lc` as bytes, and the text is cut or filled with NULs to
     * that length. So it is with NULL for `%p` and for a `%s` with a precision, with `+` or a blank for `%p`, with the
     * number 0 and a precision of 0, with `%#o` and a precision, with a `%c` whose precision is 0, and with a NUL for a
     * `%c` without a width. An empty result gives the shared empty buffer.
     * @param fmt format; NULL counts as empty
     * @return this String
     */
    String &format(const char *fmt, ...) VXUTILS_PRINTF(2, 3);
    /**
     * Append a formatted text, as format() writes it.
     * @param fmt  format, as in format()
     * @return this String
     */
    String &concatf(const char *fmt, ...) VXUTILS_PRINTF(2, 3);

    /**
     * Cut everything from @p start on; a negative @p start counts as 0.
     * @param start  position of the first byte
     * @return this String
     */
    String &deleteRegion(long start);
    /**
     * Cut the bytes from @p start up to, not including, @p end.
     * @param start  position of the first byte
     * @param end    position after the last byte
     * @return this String
     */
    String &deleteRegion(long start, long end);

    /**
     * Make `a`..`z` upper case.
     * @return this String
     */
    String &toUpperCase();
    /**
     * Make `A`..`Z` lower case.
     * @return this String
     */
    String &toLowerCase();

    /**
     * Replace every byte @p from by @p to; no effect when @p to is NUL.
     * @param from  byte to replace
     * @param to    byte to put there
     */
    void replace(char from, char to);

    /** Cut blanks (space, TAB, LF, VT, FF, CR) at both ends; if nothing is left, share the empty buffer. */
    void trim();

    /**
     * Insert @p s before @p pos.
     * @param pos  position, 0 to the length, which appends; no effect outside of that
     * @param s    the text
     * @return this String
     */
    String &insert(long pos, const String &s);
    /**
     * Insert a C text; no effect for NULL.
     * @param pos  position, 0 to the length
     * @param s    the text
     * @return this String
     */
    String &insert(long pos, const char *s);
    /**
     * Insert one character; no effect for NUL.
     * @param pos  position, 0 to the length
     * @param c    the character
     * @return this String
     */
    String &insert(long pos, char c);

    /** @} */

private:
    // All threads share the empty buffer. Its count is read and written in one piece, so that this is not a data race.
    // An update that gets lost between two threads does no harm: that block is neither written nor freed.
    static int32_t countOf(const StringBuffer *block) { return __atomic_load_n(&block->refCount, __ATOMIC_RELAXED); }
    static int32_t addToCount(StringBuffer *block, int32_t change) {
        const int32_t count = countOf(block) + change;
        __atomic_store_n(&block->refCount, count, __ATOMIC_RELAXED);
        return count;
    }
    static void release(StringBuffer *block) {
        if (addToCount(block, -1) == 0 && block->capacity > 0) free(block);  // only the shared empty buffer has no room
    }
    struct Adopted {};
    String(Adopted, StringBuffer *block) : buffer_(block) {}
    String &concatCharacter(char c);
    static String sum(String &left, const char *right, long count);
    friend String operator+(String &&left, const String &right);
    friend String operator+(String &&left, const char *right);
    friend String operator+(String &&left, char right);
    String &internalConcat(const char *bytes, long count);
    String &internalInsert(long pos, const char *bytes, long count);
    void assign(const char *bytes, long count);
    void take(StringBuffer *block);
    void takeEmpty();
    void makePrivate();
    void keepOnly(long start, long count);

    StringBuffer *buffer_;  // never NULL
};

/** @name Concatenation
 * Each makes a String of the left operand and appends the right one.
 * @{ */
VXUTILS_API String operator+(const String &left, const String &right);
VXUTILS_API String operator+(const String &left, const char *right);
VXUTILS_API String operator+(const String &left, char right);
VXUTILS_API String operator+(const char *left, const String &right);
VXUTILS_API String operator+(char left, const String &right);
/** @} */

/** @name Concatenation to a temporary
 * The same, in the block of a left operand that is a temporary: `a + b + c` builds one text, not two. The operand may
 * be empty afterwards.
 * @{ */
VXUTILS_API String operator+(String &&left, const String &right);
VXUTILS_API String operator+(String &&left, const char *right);
VXUTILS_API String operator+(String &&left, char right);
/** @} */

/** @name Comparison
 * By `strcmp`; two Strings are equal only if their lengths are as well.
 * @{ */
VXUTILS_API inline bool operator==(const String &left, const String &right) {
    if (left.c_str() == right.c_str()) return true;
    if (left.length() != right.length()) return false;
    // Different bytes still compare equal when the difference comes after a NUL inside.
    return memcmp(left.c_str(), right.c_str(), static_cast<size_t>(left.length())) == 0 ||
           strcmp(left.c_str(), right.c_str()) == 0;
}
VXUTILS_API inline bool operator!=(const String &left, const String &right) { return !(left == right); }
VXUTILS_API inline bool operator<(const String &left, const String &right) {
    return strcmp(left.c_str(), right.c_str()) < 0;
}
VXUTILS_API inline bool operator>(const String &left, const String &right) { return right < left; }
VXUTILS_API inline bool operator<=(const String &left, const String &right) { return !(right < left); }
VXUTILS_API inline bool operator>=(const String &left, const String &right) { return !(left < right); }
/** @} */

/** @name Comparison with a C text
 * By `strcmp`; NULL compares as the empty text.
 * @{ */
VXUTILS_API bool operator==(const String &left, const char *right);
VXUTILS_API bool operator!=(const String &left, const char *right);
VXUTILS_API bool operator<(const String &left, const char *right);
VXUTILS_API bool operator>(const String &left, const char *right);
VXUTILS_API bool operator<=(const String &left, const char *right);
VXUTILS_API bool operator>=(const String &left, const char *right);
VXUTILS_API bool operator==(const char *left, const String &right);
VXUTILS_API bool operator!=(const char *left, const String &right);
VXUTILS_API bool operator<(const char *left, const String &right);
VXUTILS_API bool operator>(const char *left, const String &right);
VXUTILS_API bool operator<=(const char *left, const String &right);
VXUTILS_API bool operator>=(const char *left, const String &right);
/** @} */

/** @name Comparison with a character
 * NUL equals exactly the empty text, any other character the text that consists of it.
 * @{ */
VXUTILS_API bool operator==(const String &left, char right);
VXUTILS_API bool operator!=(const String &left, char right);
VXUTILS_API bool operator==(char left, const String &right);
VXUTILS_API bool operator!=(char left, const String &right);
/** @} */

#endif
