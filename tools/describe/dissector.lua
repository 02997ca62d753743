-- A dissector for Wireshark: captures of zeld and zelctl (link type USER0), and messages
-- over NATS on TCP port 4222. Above are the tables, printed; this is the program.

local zel = Proto("zel", "zel policy service")
local nats = Proto("zel_nats", "zel over NATS")

local CAPTURE_MAGIC = 0x5a454c01
local FRAME_MAGIC = 0x4b4f4201
local REQUEST, RESPONSE = 1, 2

local truncated = ProtoExpert.new("zel.truncated", "Truncated", expert.group.MALFORMED, expert.severity.ERROR)
local malformed = ProtoExpert.new("zel.malformed", "Malformed", expert.group.MALFORMED, expert.severity.ERROR)
local refused = ProtoExpert.new("zel.refused", "Refused", expert.group.RESPONSE_CODE, expert.severity.WARN)
local unknown = ProtoExpert.new("zel.unknown", "Element that this version does not have", expert.group.UNDECODED,
                                expert.severity.NOTE)
zel.experts = {truncated, malformed, refused, unknown}

-- ---- Fields

local fields = {
    id = ProtoField.uint16("zel.element.id", "Element"),
    length = ProtoField.uint16("zel.element.length", "Length"),
    value = ProtoField.bytes("zel.element.value", "Value"),
    used = ProtoField.uint32("zel.array.length", "Array length"),
    record = ProtoField.string("zel.record", "Record"),
    payload = ProtoField.bytes("zel.payload", "Payload"),
    fingerprint = ProtoField.string("zel.dissector.fingerprint", "Wire description of the dissector"),
    subject = ProtoField.string("zel.nats.subject", "NATS subject"),
    reply = ProtoField.string("zel.nats.reply", "NATS reply subject"),
    text = ProtoField.string("zel.nats.line", "NATS"),
}

local function make_field(f)
    local path = "zel." .. f.record .. "." .. f.name
    if f.format == "ipv4" then return ProtoField.ipv4(path, f.name) end
    if f.format == "mac" then return ProtoField.ether(path, f.name) end
    if f.format == "text" then return ProtoField.string(path, f.name) end
    if f.is_signed then return ProtoField.int32(path, f.name) end
    local base_of_numbers = f.format == "hexadecimal" and base.HEX or base.DEC
    if f.width == 8 then return ProtoField.uint64(path, f.name, base_of_numbers) end
    local make = f.width == 1 and ProtoField.uint8 or f.width == 2 and ProtoField.uint16 or ProtoField.uint32
    return make(path, f.name, base_of_numbers, f.names)
end

local function add_field(f)
    local key = f.record .. "." .. f.name
    if not f.is_array and not f.layout and not fields[key] then
        fields[key] = make_field(f)
    end
end

for _, element in pairs(ELEMENTS) do
    if element.kind == "value" then add_field(element) end
end
for _, layout in pairs(LAYOUTS) do
    for _, f in ipairs(layout.fields) do add_field(f) end
end
for _, f in pairs(fields) do table.insert(zel.fields, f) end

-- ---- Values. Numbers have the byte order of the sender, which the magic number shows.

local little = true

local function number(range)
    return little and range:le_uint() or range:uint()
end

local function add_number(tree, field, range)
    return little and tree:add_le(field, range) or tree:add(field, range)
end

-- Text, with harmless characters; zeros at its end fill up the field.
local function text_of(range)
    local bytes = range:bytes():raw():gsub("%z+$", "")
    return (bytes:gsub("[^\32-\126]", function(c) return string.format("\\x%02x", c:byte()) end))
end

local dissect_array

local function add_value(tree, f, range)
    local field = fields[f.record .. "." .. f.name]
    if f.format == "text" then
        return tree:add(field, range, text_of(range))
    elseif f.format == "mac" then
        return tree:add(field, range)
    end
    return add_number(tree, field, range)
end

local add_layout

-- The items of a value: one number or record, or an array of them.
local function add_items(tree, f, range)
    for i = 0, f.count - 1 do
        local item = range:range(i * f.width, f.width)
        if f.layout then
            add_layout(tree, f.layout, item)
        else
            add_value(tree, f, item)
        end
    end
end

-- A record whose members have fixed places. One that ends early is shown as far as it goes.
function add_layout(tree, name, range)
    local layout = LAYOUTS[name]
    local sub = tree:add(fields.record, range, name)
    for _, f in ipairs(layout.fields) do
        if f.offset + f.width * f.count <= range:len() then
            add_items(sub, f, range:range(f.offset, f.width * f.count))
        end
    end
    local at, step = layout.size, layout.rest and LAYOUTS[layout.rest].size
    while step and at + step <= range:len() do
        add_layout(sub, layout.rest, range:range(at, step))
        at = at + step
    end
    if range:len() < layout.size then
        sub:add_proto_expert_info(truncated, "the record " .. name .. " has " .. layout.size .. " bytes")
    end
    return sub
end

local function add_element_value(tree, element, value)
    if element.is_array then
        local sub = tree:add(fields.record, value, element.layout)
        dissect_array(sub, value)
    elseif element.layout and element.record == element.layout then
        add_layout(tree, element.layout, value) -- a later version may be longer
    elseif value:len() ~= element.width * element.count then
        tree:add(fields.value, value):add_proto_expert_info(malformed, element.record .. "." .. element.name ..
            " has " .. element.width * element.count .. " bytes")
    else
        add_items(tree, element, value)
    end
end

-- ---- Arrays of elements

local function add_element(tree, range, id)
    local element = ELEMENTS[id]
    local length = range:len() - 4
    if not element then
        local item = tree:add(fields.value, range)
        item:set_text("unknown element " .. id .. ", " .. length .. " bytes")
        add_number(item, fields.id, range:range(0, 2))
        item:add_proto_expert_info(unknown)
    elseif length == 0 then
        tree:add(fields.value, range):add_proto_expert_info(malformed, "element " .. id .. " without a value")
    else
        add_element_value(tree, element, range:range(4, length))
    end
end

-- One array. Returns how many bytes it has.
function dissect_array(tree, range)
    if range:len() < 4 then
        tree:add(fields.value, range):add_proto_expert_info(truncated, "an array begins with 4 bytes")
        return range:len()
    end
    local used = number(range:range(0, 4))
    local used_item = add_number(tree, fields.used, range:range(0, 4))
    if used > range:len() - 4 then
        used_item:add_proto_expert_info(truncated, "of " .. used .. " bytes " .. range:len() - 4 .. " are here")
    end
    local stop = 4 + math.min(used, range:len() - 4)
    local at = 4
    local open = {} -- trees and records of the markers that surround
    local current = tree
    while at < stop do
        local length = at + 4 <= stop and number(range:range(at + 2, 2)) or 0
        if at + 4 + length > stop then
            current:add(fields.value, range:range(at, stop - at)):add_proto_expert_info(truncated,
                "this element is cut short")
            break
        end
        local id = number(range:range(at, 2))
        local element = ELEMENTS[id]
        if element and element.kind == "start" then
            local sub = current:add(fields.record, range:range(at, 4 + length), element.record)
            table.insert(open, {tree = current, record = element.record})
            current = sub
        elseif element and element.kind == "end" then
            local last = table.remove(open)
            if not last or last.record ~= element.record then
                current:add(fields.value, range:range(at, 4 + length)):add_proto_expert_info(malformed,
                    "the end of " .. element.record .. " without its start")
            end
            current = last and last.tree or tree
        else
            add_element(current, range:range(at, 4 + length), id)
        end
        at = at + 4 + length
    end
    if #open > 0 then
        current:add_proto_expert_info(truncated, "the record " .. open[#open].record .. " has no end")
    end
    return stop
end

-- Arrays that follow each other.
local function dissect_arrays(tree, range)
    local at = 0
    while at < range:len() do
        local taken = dissect_array(tree, range:range(at))
        at = at + taken
    end
end

-- ---- Messages

local kind_names = ELEMENTS[4].names

-- The request kind, for the column with the summary.
local function request_name(range, opcode)
    if range and range:len() >= 18 and number(range:range(9, 2)) == 4 then
        local kind = number(range:range(13, 4))
        return kind_names[kind] or "request kind " .. kind
    end
    return OPCODES[opcode] or string.format("opcode 0x%x", opcode)
end

local function dissect_response(tree, range, opcode)
    local size = LAYOUTS.response.size
    local header = add_layout(tree, "response", range:range(0, math.min(size, range:len())))
    local summary = (OPCODES[opcode] or "answer") .. " answered"
    if range:len() >= 8 and number(range:range(4, 4)) ~= 0 then
        header:add_proto_expert_info(refused, text_of(range:range(12, math.min(range:len(), size) - 12)))
        summary = "refused: " .. text_of(range:range(12, math.min(range:len(), size) - 12))
    end
    if range:len() > size then
        dissect_arrays(tree, range:range(size))
    end
    return summary
end

-- The payload of a message. Returns a summary.
local function dissect_payload(tree, range, kind, opcode, total)
    if not range then return OPCODES[opcode] or "empty" end
    if range:len() < total then
        tree:add_proto_expert_info(truncated, "of " .. total .. " bytes " .. range:len() .. " are here")
    end
    if kind == RESPONSE then
        return dissect_response(tree, range, opcode)
    end
    dissect_arrays(tree, range)
    return request_name(range, opcode)
end

local function rest_of(range, from)
    return range:len() > from and range:range(from) or nil
end

-- True when a magic number stands at the front, in either byte order.
local function has_magic(range, magic)
    if range:len() < 4 then return false end
    little = range:range(0, 4):le_uint() == magic
    return little or range:range(0, 4):uint() == magic
end

function zel.dissector(buffer, pinfo, tree)
    local range = buffer:range()
    if not has_magic(range, CAPTURE_MAGIC) then return 0 end
    pinfo.cols.protocol = "ZEL"
    local size = LAYOUTS.capture.size
    local root = tree:add(zel, range)
    root:add(fields.fingerprint, FINGERPRINT):set_generated()
    add_layout(root, "capture", range:range(0, math.min(size, range:len())))
    if range:len() < size then return range:len() end
    local kind, opcode = number(range:range(4, 2)), number(range:range(24, 4))
    local summary = dissect_payload(root, rest_of(range, size), kind, opcode, number(range:range(36, 4)))
    pinfo.cols.info = summary .. ", number " .. number(range:range(8, 4)) .. ", client " .. number(range:range(12, 4))
    return range:len()
end

-- Messages in several packets: those that are not whole yet, by subject and token; and
-- whole ones, by the place of their last packet. A capture is read more than once.
local unfinished, finished = {}, {}
function zel.init() unfinished, finished = {}, {} end

-- The whole message, when this packet is its last one.
local function reassemble(payload, total, offset, message, place)
    if finished[place] then return finished[place] end
    local bytes = offset == 0 and ByteArray.new() or unfinished[message]
    if not bytes or bytes:len() ~= offset then return end
    bytes:append(payload:bytes())
    unfinished[message] = bytes
    if bytes:len() < total then return end
    unfinished[message], finished[place] = nil, bytes
    return bytes
end

-- A packet of the transport: its header, and a message or a part of one.
local function dissect_frame(tree, range, subject, place)
    local size = LAYOUTS.frame.size
    add_layout(tree, "frame", range:range(0, math.min(size, range:len())))
    if range:len() < size then return "truncated packet" end
    local kind, opcode = number(range:range(4, 2)), number(range:range(12, 4))
    local total, offset = number(range:range(24, 4)), number(range:range(28, 4))
    local payload = rest_of(range, size)
    if payload and (offset ~= 0 or payload:len() < total) and number(range:range(6, 2)) ~= 0 then
        tree:add(fields.payload, payload)
        local message = subject .. " " .. number(range:range(8, 4))
        local whole = reassemble(payload, total, offset, message, place)
        if not whole then
            return request_name(nil, opcode) .. ", " .. payload:len() .. " of " .. total .. " bytes from " .. offset
        end
        payload = whole:tvb("Whole message"):range()
    end
    return dissect_payload(tree, payload, kind, opcode, total)
end

-- ---- NATS: lines, and behind some of them as many bytes as they say

-- The line at an offset without its end, and the offset behind it; nothing while it is not whole.
local function line_at(buffer, from)
    local text = buffer:raw(from, math.min(buffer:len() - from, 4096))
    local stop = text:find("\r\n", 1, true)
    if stop then return text:sub(1, stop - 1), from + stop + 1 end
end

local function words_of(line)
    local words = {}
    for word in line:gmatch("%S+") do table.insert(words, word) end
    return words
end

-- Of a line that content follows: subject, reply subject, bytes of headers, bytes in all.
local function content_of(words)
    local verb = (words[1] or ""):upper()
    local has_headers = verb == "HPUB" or verb == "HMSG"
    if not has_headers and verb ~= "PUB" and verb ~= "MSG" then return end
    local first_optional = (verb == "MSG" or verb == "HMSG") and 4 or 3
    local numbers = has_headers and 2 or 1
    local total = tonumber(words[#words])
    local headers = has_headers and tonumber(words[#words - 1]) or 0
    if not total or not headers or headers > total then return end
    local reply = #words - numbers >= first_optional and words[first_optional] or nil
    return words[2], reply, headers, total
end

-- One command of NATS. Returns the offset behind it, or nothing when more bytes are needed.
local function dissect_command(buffer, pinfo, tree, at)
    local line, behind = line_at(buffer, at)
    if not line then return end
    local subject, reply, headers, total = content_of(words_of(line))
    if not subject then
        tree:add(fields.text, buffer(at, behind - at), (line:gsub("[^\32-\126]", "?")))
        return behind
    end
    if behind + total + 2 > buffer:len() then return end
    local sub = tree:add(nats, buffer(at, behind + total + 2 - at))
    sub:add(fields.subject, buffer(at, #line), (subject:gsub("[^\32-\126]", "?")))
    if reply then sub:add(fields.reply, buffer(at, #line), (reply:gsub("[^\32-\126]", "?"))) end
    if total - headers >= 4 then
        local range = buffer(behind + headers, total - headers)
        if has_magic(range, FRAME_MAGIC) then
            pinfo.cols.protocol = "ZEL"
            pinfo.cols.info = dissect_frame(sub:add(zel, range), range, subject, pinfo.number .. " " .. at)
        end
    end
    return behind + total + 2
end

function nats.dissector(buffer, pinfo, tree)
    pinfo.cols.protocol = "NATS"
    local at = 0
    while at < buffer:len() do
        local next = dissect_command(buffer, pinfo, tree, at)
        if not next then
            pinfo.desegment_offset = at
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            return buffer:len()
        end
        at = next
    end
    return buffer:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, zel)
DissectorTable.get("tcp.port"):add(4222, nats)
