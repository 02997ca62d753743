# Counts, rule by rule, the packets of a trace whose first matching rule it is:
# what the service must have counted.  Reads a ClassBench rule set, then a trace.
function address(text, part) { split(text, part, "."); return ((part[1] * 256 + part[2]) * 256 + part[3]) * 256 + part[4] }
function hex(text, i, value)
{
    value = 0
    for (i = 3; i <= length(text); ++i)
        value = value * 16 + index("0123456789abcdef", tolower(substr(text, i, 1))) - 1
    return value
}
# Prefixes as ranges, so that everything compares alike.
function prefix(column, text, part, size)
{
    split(text, part, "/")
    size = 2 ^ (32 - part[2])
    low[rules, column] = int(address(part[1]) / size) * size
    high[rules, column] = low[rules, column] + size - 1
}
function range(column, text, part) { split(text, part, ":"); low[rules, column] = part[1] + 0; high[rules, column] = part[2] + 0 }
function protocol(text, part)
{
    split(text, part, "/")
    low[rules, 5] = hex(part[2]) == 0 ? 0 : hex(part[1])
    high[rules, 5] = hex(part[2]) == 0 ? 255 : hex(part[1])
}
FNR == NR && NF > 0 { ++rules; prefix(1, substr($1, 2)); prefix(2, $2); range(3, $3 $4 $5); range(4, $6 $7 $8); protocol($9); next }
NF >= 5 {
    for (rule = 1; rule <= rules; ++rule) {
        for (column = 1; column <= 5 && low[rule, column] <= $column && $column <= high[rule, column]; ++column)
            continue
        if (column > 5) {
            ++count[rule]
            break
        }
    }
}
END {
    for (rule = 1; rule <= rules; ++rule)
        print rule, count[rule] + 0
}
