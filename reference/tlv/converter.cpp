// The converter between records and elements, driven by description tables.  Tables come
// from the library and are trusted; bodies come from anywhere and are not.
#include "reference/contract.hpp"
#include "reference/tlv/array.hpp"
#include "zel-platform/tlv_field.h"
#include "zel.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace zel::platform;

namespace {

// A table: a header, then rows up to the one without an element.
class Table {
public:
    explicit Table(const void *table) : header_(static_cast<const zel_table_header_t *>(table)) {}

    uint32_t record_size() const { return header_->record_size; }
    const zel_table_row_t *begin() const { return reinterpret_cast<const zel_table_row_t *>(header_ + 1); }
    static bool is_end(const zel_table_row_t *row) { return row->element == ZEL_FIELD_NONE; }

    const zel_table_row_t *find(uint32_t element) const
    {
        for (const zel_table_row_t *row = begin(); !is_end(row); ++row) {
            if (row->element == element)
                return row;
        }
        return nullptr;
    }

private:
    const zel_table_header_t *header_;
};

bool is_record_array(const zel_table_row_t &row) { return row.kind == ZEL_FIELD_RECORD_ARRAY; }

// The count function's result is signed; a negative number counts as 0.
uint32_t count_of(const zel_table_row_t &row, const void *record)
{
    return static_cast<uint32_t>(std::max(row.count(record), 0));
}

const char *nested_records(const zel_table_row_t &row, const char *record)
{
    const char *records;
    std::memcpy(&records, record + row.offset, sizeof records);
    return records;
}

// ---- From record to elements

uint64_t size_of_elements(const Table &table, const char *record)
{
    uint64_t size = 0;
    for (const zel_table_row_t *row = table.begin(); !Table::is_end(row); ++row) {
        if (!is_record_array(*row)) {
            size += TLV_ELEMENT_OVERHEAD + row->size;
            continue;
        }
        const char *nested = nested_records(*row, record);
        const uint32_t count = nested != nullptr ? count_of(*row, record) : 0;
        for (uint32_t i = 0; i < count; ++i, nested += row->width)
            size += TLV_ELEMENT_OVERHEAD + TLV_ARRAY_OVERHEAD + size_of_elements(Table(row->nested), nested);
    }
    return size;
}

int32_t write_elements(const Table &table, const char *record, void *array, uint32_t capacity);

// Writes a nested record in its element's place in the array, without a copy.
int32_t write_nested(const zel_table_row_t &row, const char *record, void *array, uint32_t capacity)
{
    const uint64_t length = TLV_ARRAY_OVERHEAD + size_of_elements(Table(row.nested), record);
    if (length > UINT16_MAX)
        return TLVU_NO_ROOM;
    const uint32_t used = used_bytes(array);
    const uint32_t size = TLV_ELEMENT_OVERHEAD + static_cast<uint32_t>(length);
    if (size > capacity - TLV_ARRAY_OVERHEAD - used)
        return TLVU_NO_ROOM;

    auto *const element = static_cast<unsigned char *>(array) + TLV_ARRAY_OVERHEAD + used;
    const ElementHeader header{static_cast<uint16_t>(row.element), static_cast<uint16_t>(length)};
    std::memcpy(element, &header, sizeof header);
    unsigned char *const nested = element + TLV_ELEMENT_OVERHEAD;
    set_used_bytes(nested, 0);
    const int32_t code = write_elements(Table(row.nested), record, nested, static_cast<uint32_t>(length));
    if (code != TLVU_OK)
        return code;
    set_used_bytes(array, used + size);
    return TLVU_OK;
}

int32_t write_elements(const Table &table, const char *record, void *array, uint32_t capacity)
{
    for (const zel_table_row_t *row = table.begin(); !Table::is_end(row); ++row) {
        if (!is_record_array(*row)) {
            if (row->size > UINT16_MAX ||
                tlv_array_add_tlv(array, capacity, static_cast<uint16_t>(row->element),
                                  static_cast<uint16_t>(row->size), record + row->offset, 0) != TLV_OK)
                return TLVU_NO_ROOM;
            continue;
        }
        const uint32_t count = count_of(*row, record);
        const char *nested = nested_records(*row, record);
        if (count != 0 && nested == nullptr)
            return TLVU_COUNT;
        for (uint32_t i = 0; i < count; ++i, nested += row->width) {
            if (const int32_t code = write_nested(*row, nested, array, capacity); code != TLVU_OK)
                return code;
        }
    }
    return TLVU_OK;
}

// ---- From elements to record

// The elements of an array that have a row in a table.
class Elements {
public:
    Elements(const void *array, const Table &table, uint32_t cursor = 0) : array_(array), table_(table), cursor_(cursor)
    {}

    // TLVU_OK with an element, TLVU_END or TLVU_DAMAGED.
    int32_t next()
    {
        for (;;) {
            const int32_t status = zel::platform::next(array_, cursor_, type, length, value);
            if (status != TLV_OK)
                return status == TLV_END ? TLVU_END : TLVU_DAMAGED;
            row = table_.find(type);
            if (row != nullptr)
                return TLVU_OK;
        }
    }

    uint32_t cursor() const { return cursor_; }

    const zel_table_row_t *row = nullptr;
    uint16_t type = 0;
    uint16_t length = 0;
    const void *value = nullptr;

private:
    const void *array_;
    Table table_;
    uint32_t cursor_;
};

// Copies a value into its field, which is zero-filled: a shorter value leaves zeros behind
// it, and the bytes of a longer one beyond the field are ignored.
void fill_field(void *field, const Elements &from)
{
    std::memcpy(field, from.value, std::min<uint32_t>(from.length, from.row->size));
}

// Adds the bytes of the block that a body converts to.  Also checks the whole body, so that
// the functions below need not.
int32_t measure(const Table &table, const void *body, uint64_t &size)
{
    size += table.record_size();
    Elements elements(body, table);
    int32_t code = TLVU_OK;
    while ((code = elements.next()) == TLVU_OK) {
        if (!is_record_array(*elements.row))
            continue;
        if (tlv_array_check(elements.value, elements.length) != TLV_OK)
            return TLVU_DAMAGED;
        if (const int32_t nested = measure(Table(elements.row->nested), elements.value, size); nested != TLVU_OK)
            return nested;
    }
    return code == TLVU_END ? TLVU_OK : code;
}

// A zero-filled block of memory that is given out from its start to its end.
struct Block {
    char *next;

    char *take(uint64_t bytes)
    {
        char *const taken = next;
        next += bytes;
        return taken;
    }
};

uint32_t count_elements(const Table &table, const void *body, const zel_table_row_t *row)
{
    uint32_t count = 0;
    for (Elements elements(body, table); elements.next() == TLVU_OK;)
        count += elements.row == row ? 1 : 0;
    return count;
}

int32_t read_record(const Table &table, const void *body, char *record, Block &block);

int32_t read_nested(const Table &table, const void *body, const zel_table_row_t &row, char *record, Block &block)
{
    const uint32_t count = count_elements(table, body, &row);
    // A negative count is refused here: a reader of the unsigned field would take it for a large one.
    if (row.count(record) != int64_t{count})
        return TLVU_COUNT;
    char *nested = count != 0 ? block.take(uint64_t{count} * row.width) : nullptr;
    std::memcpy(record + row.offset, &nested, sizeof nested);
    uint32_t left = count;
    for (Elements elements(body, table); left != 0 && elements.next() == TLVU_OK;) {
        if (elements.row != &row)
            continue;
        if (const int32_t code = read_record(Table(row.nested), elements.value, nested, block); code != TLVU_OK)
            return code;
        nested += row.width;
        --left;
    }
    return TLVU_OK;
}

// Fields first, because the numbers of records are fields.
int32_t read_record(const Table &table, const void *body, char *record, Block &block)
{
    for (Elements elements(body, table); elements.next() == TLVU_OK;) {
        if (!is_record_array(*elements.row))
            fill_field(record + elements.row->offset, elements);
    }
    for (const zel_table_row_t *row = table.begin(); !Table::is_end(row); ++row) {
        if (!is_record_array(*row))
            continue;
        if (const int32_t code = read_nested(table, body, *row, record, block); code != TLVU_OK)
            return code;
    }
    return TLVU_OK;
}

// Checks a body and measures the block that it converts to, which has at most INT32_MAX bytes.
// body_size 0: the body's own used bytes are its size.
int32_t checked_size(const Table &table, const void *body, uintptr_t body_size, uint32_t &size)
{
    if (body == nullptr)
        return TLVU_ARGUMENT;
    if (body_size != 0 &&
        tlv_array_check(body, static_cast<uint32_t>(std::min<uintptr_t>(body_size, UINT32_MAX))) != TLV_OK)
        return TLVU_DAMAGED;
    uint64_t measured = 0;
    const int32_t code = measure(table, body, measured);
    if (code == TLVU_OK && measured > INT32_MAX)
        return TLVU_NO_ROOM;
    size = static_cast<uint32_t>(measured);
    return code;
}

} // namespace

int32_t tlvu_table_convert_struct_to_tlv(void *tlv, uintptr_t capacity, const void *table, const void *record,
                                         void *written, uintptr_t, uintptr_t)
{
    if (tlv == nullptr || record == nullptr)
        return TLVU_ARGUMENT;
    const auto room = static_cast<uint32_t>(std::min<uintptr_t>(capacity, UINT32_MAX));
    if (tlv_array_check(tlv, room) != TLV_OK)
        return room < TLV_ARRAY_OVERHEAD ? TLVU_NO_ROOM : TLVU_DAMAGED;
    const uint32_t used = used_bytes(tlv);
    const int32_t code = write_elements(Table(table), static_cast<const char *>(record), tlv, room);
    if (code != TLVU_OK) {
        set_used_bytes(tlv, used); // none rather than some
        return code;
    }
    if (written != nullptr) {
        const uint32_t bytes = TLV_ARRAY_OVERHEAD + used_bytes(tlv);
        std::memcpy(written, &bytes, sizeof bytes);
    }
    return TLVU_OK;
}

int32_t tlvu_table_convert_tlv_to_struct(void *record_slot, const void *tlv, uintptr_t size, const void *table,
                                         uintptr_t caller_owned)
{
    char *record = nullptr;
    if (caller_owned != 0)
        std::memcpy(&record, record_slot, sizeof record);
    const auto fill_slot = [&](const char *filled) { std::memcpy(record_slot, &filled, sizeof filled); };
    if (caller_owned == 0)
        fill_slot(nullptr);

    uint32_t needed = 0;
    int32_t code = checked_size(Table(table), tlv, 0, needed);
    if (code != TLVU_OK)
        return code;
    if (caller_owned == 0)
        record = static_cast<char *>(std::calloc(1, needed));
    else if (needed > size)
        return TLVU_NO_ROOM;
    else if (record != nullptr)
        std::memset(record, 0, needed);
    if (record == nullptr)
        return caller_owned == 0 ? TLVU_NO_MEMORY : TLVU_ARGUMENT;

    Block block{record};
    block.take(Table(table).record_size());
    code = read_record(Table(table), tlv, record, block);
    if (caller_owned != 0)
        return code;
    if (code != TLVU_OK)
        std::free(record);
    else
        fill_slot(record);
    return code;
}

uint32_t tlvu_table_size(const void *table, const void *record)
{
    if (record == nullptr)
        return 0;
    return static_cast<uint32_t>(
        std::min<uint64_t>(size_of_elements(Table(table), static_cast<const char *>(record)), UINT32_MAX));
}

int32_t tlvu_table_get_struct_size_from_tlv(int32_t *size, const void *tlv, uintptr_t, const void *table)
{
    uint32_t measured = 0;
    const int32_t code = checked_size(Table(table), tlv, 0, measured);
    if (code == TLVU_OK)
        *size = static_cast<int32_t>(measured);
    return code;
}

int32_t tlvu_get_field(const void *tlv, uintptr_t size, uintptr_t element, void *value, uintptr_t capacity,
                       const void *table)
{
    uint32_t ignored = 0;
    if (const int32_t code = checked_size(Table(table), tlv, size, ignored); code != TLVU_OK)
        return code;
    const zel_table_row_t *const row =
        element <= UINT16_MAX ? Table(table).find(static_cast<uint32_t>(element)) : nullptr;
    if (row == nullptr || is_record_array(*row))
        return TLVU_UNKNOWN;
    if (row->size > capacity)
        return TLVU_NO_ROOM;
    int32_t code = TLVU_ABSENT;
    // The last one counts, as in a conversion.
    for (Elements elements(tlv, Table(table)); elements.next() == TLVU_OK;) {
        if (elements.row != row)
            continue;
        std::memset(value, 0, row->size);
        fill_field(value, elements);
        code = TLVU_OK;
    }
    return code;
}

int32_t tlvu_field_itr_init(void *itr, const void *tlv, uintptr_t size, const void *table, uintptr_t, uint16_t element)
{
    uint32_t ignored = 0;
    if (const int32_t code = checked_size(Table(table), tlv, size, ignored); code != TLVU_OK)
        return code;
    *static_cast<tlvu_itr_t *>(itr) = {tlv, table, 0, element};
    return TLVU_OK;
}

int32_t tlvu_field_itr_get_next(void *itr, void *field)
{
    tlvu_itr_t &state = *static_cast<tlvu_itr_t *>(itr);
    Elements elements(state.tlv, Table(state.table), state.cursor);
    int32_t code = TLVU_OK;
    do {
        code = elements.next();
        state.cursor = elements.cursor();
        if (code != TLVU_OK)
            return code;
    } while (state.element != 0 && state.element != elements.type);
    const zel_table_row_t &row = *elements.row;
    *static_cast<tlvu_field_t *>(field) = {elements.value, elements.type, elements.length, row.kind,
                                           is_record_array(row) ? row.width : row.size};
    return TLVU_OK;
}

void tlvu_error_print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // The analyzer does not see that the list was started.
    (void)std::vfprintf(stderr, format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
}
