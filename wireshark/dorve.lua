-- SPDX-License-Identifier: GPL-2.0-or-later
-- A Wireshark dissector for DORVE: wireshark -X lua_script:wireshark/dorve.lua FILE
-- docs/protocol.md describes the messages. Field names are those of src/protocol/include/dorve/protocol/messages.h.
-- It runs in Wireshark 4.0 (Lua 5.2) and 4.4 (Lua 5.4). Both have the library `bit`, which returns signed numbers.
--
-- Wireshark asks for the GPL in scripts that use its bindings, so this one file is free software under the
-- terms of the GNU General Public License as published by the Free Software Foundation, version 2 or later.

local PORT = 8888
local MAGIC, VERSION = 0x444f5256, 0x0100
local HEADER_SIZE, ID_SIZE = 32, 128
local MAX_SIZE = 8192 -- of a message that a receiver reads, in bytes

local dorve = Proto("dorve", "DORVE")

-- The kinds of fields. Each function declares a field of its kind. TEXT ends at its first NUL. TIME is in microseconds
-- since 1970.
local function TEXT(abbreviation, name) return ProtoField.string(abbreviation, name) end
local function U8(abbreviation, name) return ProtoField.uint8(abbreviation, name) end
local function U16(abbreviation, name) return ProtoField.uint16(abbreviation, name, base.HEX) end
local function U32(abbreviation, name) return ProtoField.uint32(abbreviation, name) end
local function MASK(abbreviation, name) return ProtoField.uint32(abbreviation, name, base.HEX) end
local function TIME(abbreviation, name) return ProtoField.absolute_time(abbreviation, name, base.UTC) end
local function RESERVED(abbreviation, name) return ProtoField.bytes(abbreviation, name) end

-- Records: the name, the size in bytes and the kind of each field, in wire order. The header is big-endian, the bodies
-- are little-endian.
local HEADER = {
  { "magic", 4, MASK }, { "version", 2, U16 }, { "type", 2, U16 }, { "length", 4, U32 },
  { "checksum", 4, MASK }, { "timestamp", 8, TIME }, { "sequence", 4, U32 }, { "reserved", 4, RESERVED },
}
local ID = { "request_id", ID_SIZE, TEXT }
local TOKEN = { "session_token", 65, TEXT }
local STATUS = { "status", 32, TEXT }
local function reserved(size, number) return { "reserved" .. (number or ""), size, RESERVED } end

local RECORDS = {
  [0] = { name = "VersionQuery",
    ID, { "client_version", 32, TEXT }, { "supported_versions", 256, TEXT }, reserved(4),
    { "features", 4, MASK }, reserved(4, 2), reserved(24, 3) },
  { name = "VersionResponse",
    ID, { "server_version", 32, TEXT }, { "selected_version", 32, TEXT }, { "features", 4, MASK },
    { "error_code", 4, U32 }, { "message", 256, TEXT }, reserved(24) },
  { name = "ExchangeKeysRequest", ID, { "variant", 32, TEXT }, { "public_key", 4096, TEXT }, reserved(300) },
  { name = "ExchangeKeysResponse",
    ID, { "public_key", 4096, TEXT }, TOKEN, { "token_expiry_us", 8, TIME }, reserved(4), reserved(291, 2) },
  { name = "VerifyKeysRequest",
    ID, TOKEN, { "local_key_hash", 65, TEXT }, { "peer_key_hash", 65, TEXT }, reserved(30) },
  { name = "VerifyKeysResponse", ID, STATUS, reserved(4), reserved(158, 2) },
  { name = "InstallKeysRequest", ID, TOKEN, { "install_flags", 4, MASK }, reserved(539) },
  { name = "InstallKeysResponse", ID, STATUS, { "install_status", 32, TEXT }, reserved(4), reserved(280, 2) },
  { name = "ConfirmInstallRequest", ID, TOKEN, STATUS, reserved(27) },
  { name = "ConfirmInstallResponse",
    ID, STATUS, reserved(4), { "keys_active", 1, U8 }, reserved(1, 2), { "completed_at_us", 8, TIME },
    reserved(267, 3) },
}
local UNKNOWN = { name = "Unknown message" }

-- There is one Wireshark field for each name. Records that have a field of the same name share it.
local names = {}
for type, record in pairs(RECORDS) do
  names[type] = record.name
end
local fields = {
  type = ProtoField.uint16("dorve.type", "type", base.DEC, names),
  checksum_status = ProtoField.uint8("dorve.checksum.status", "Checksum status", base.DEC,
    { [0] = "Bad", [1] = "Good" }),
  response_in = ProtoField.framenum("dorve.response_in", "Response in", base.NONE, frametype.RESPONSE),
  response_to = ProtoField.framenum("dorve.response_to", "Response to", base.NONE, frametype.REQUEST),
  response_time = ProtoField.relative_time("dorve.response_time", "Response time"),
}
local function declare(record)
  local size = 0
  for _, field in ipairs(record) do
    local name, bytes, kind = table.unpack(field)
    fields[name] = fields[name] or kind("dorve." .. name, name)
    size = size + bytes
  end
  return size
end
assert(declare(HEADER) == HEADER_SIZE)
for _, record in pairs(RECORDS) do
  record.size = HEADER_SIZE + declare(record)
end
dorve.fields = fields

-- Every receiver rejects a message with an error. The server accepts a request that has only warnings and notes.
local experts = {}
local function declare_expert(name, group, severity, text)
  experts[name] = ProtoExpert.new("dorve." .. name, text, expert.group[group], expert.severity[severity])
end
declare_expert("bad_magic", "MALFORMED", "ERROR", "Wrong magic number")
declare_expert("bad_version", "PROTOCOL", "ERROR", "Unknown version: receivers reject the message")
declare_expert("bad_type", "MALFORMED", "ERROR", "Unknown type")
declare_expert("bad_length", "MALFORMED", "ERROR", "Invalid length")
declare_expert("bad_checksum", "CHECKSUM", "ERROR", "Wrong checksum")
declare_expert("short", "MALFORMED", "WARN", "Shorter than its record: receivers treat the missing bytes as zero")
declare_expert("long", "MALFORMED", "WARN", "Longer than its record: only the server accepts it, and ignores the rest")
declare_expert("unterminated", "MALFORMED", "WARN", "Text without NUL: receivers read to the end of the field")
declare_expert("not_zero", "PROTOCOL", "NOTE", "Reserved but not zero: receivers ignore it")
dorve.experts = experts

local CRC = {}
for byte = 0, 255 do
  local remainder = byte
  for _ = 1, 8 do
    local odd = remainder % 2 == 1
    remainder = bit.rshift(remainder, 1)
    if odd then remainder = bit.bxor(remainder, 0xedb88320) end
  end
  CRC[byte] = remainder
end

-- The CRC-32/ISO-HDLC of a message, which is given as wire bytes. The CRC covers each header field in little-endian
-- order, with the checksum as zero, and the wire bytes of the body.
local function checksum_of(message)
  local pieces, offset = {}, 1
  for _, field in ipairs(HEADER) do
    local bytes = message:sub(offset, offset + field[2] - 1)
    table.insert(pieces, field[1] == "checksum" and "\0\0\0\0" or bytes:reverse())
    offset = offset + field[2]
  end
  table.insert(pieces, message:sub(offset))
  local input, crc = table.concat(pieces), 0xffffffff
  for i = 1, #input do
    crc = bit.bxor(CRC[bit.band(bit.bxor(crc, input:byte(i)), 0xff)], bit.rshift(crc, 8))
  end
  return bit.bxor(crc, 0xffffffff) % 2 ^ 32
end

local function time_of(microseconds)
  local seconds = microseconds / 1000000
  return NSTime.new(seconds:tonumber(), (microseconds - seconds * 1000000):tonumber() * 1000)
end

-- Adds the fields of `record`, which begins at `offset`, until the message ends.
-- Returns the offset where the last field ends, and the tree items by field name.
local function add_fields(tree, message, record, offset, big_endian)
  local items = {}
  for _, field in ipairs(record) do
    local name, size, kind = table.unpack(field)
    local whole = message:len() - offset >= size
    if message:len() == offset or not (whole or kind == TEXT or kind == RESERVED) then break end
    local range = whole and message(offset, size) or message(offset)
    local value
    if kind == TEXT then
      value = range:raw():match("^[^\0]*")
    elseif kind == TIME then
      value = time_of(big_endian and range:uint64() or range:le_uint64())
    end
    local add = (big_endian or kind == RESERVED) and tree.add or tree.add_le
    local item = value and tree:add(fields[name], range, value) or add(tree, fields[name], range)
    -- A text that the end of the message cuts off is not marked: receivers add zeroes there, which end the text.
    if kind == TEXT and #value == size then item:add_proto_expert_info(experts.unterminated) end
    if kind == RESERVED and range:raw():find("[^\0]") then item:add_proto_expert_info(experts.not_zero) end
    items[name] = item
    offset = offset + range:len()
  end
  return offset, items
end

-- `requests` holds the last request of each stream and id. `links` holds the request of each message, as found when the
-- message was first dissected. Wireshark dissects messages again in any order when the user selects them.
local requests, links
function dorve.init()
  requests, links = {}, {}
end

local stream_of = Field.new("tcp.stream")

-- Matches a request and its response by their id alone. If the server knows the id of a request, it repeats its first
-- response to that id, even if the request has another type.
local function link(tree, pinfo, is_request, id)
  local key = stream_of().value .. " " .. id
  local message = pinfo.number .. (is_request and " request " or " response ") .. id
  if links[message] == nil then
    if is_request then requests[key] = { frame = pinfo.number, time = pinfo.rel_ts } end
    links[message] = requests[key] or false
    if requests[key] and not is_request then requests[key].response = requests[key].response or pinfo.number end
  end
  local request = links[message]
  if not request then return end
  if not is_request then
    local nanoseconds = math.floor((pinfo.rel_ts - request.time) * 1e9 + 0.5)
    local time = NSTime.new(math.floor(nanoseconds / 1e9), nanoseconds % 1e9)
    tree:add(fields.response_to, request.frame):set_generated()
    tree:add(fields.response_time, time):set_generated()
  elseif request.response then
    tree:add(fields.response_in, request.response):set_generated()
  end
end

local function valid_length(length)
  return length >= HEADER_SIZE and length <= MAX_SIZE
end

-- The size of the message at `offset`. If its length is invalid, the message extends to the end of the segment,
-- because the next segment may begin a new message.
local function size_of(tvb, _, offset)
  local length = tvb(offset + 8, 4):uint()
  return valid_length(length) and length or tvb:len() - offset
end

local function dissect_message(tvb, pinfo, root)
  local message = tvb()
  local type, length = message(6, 2):uint(), message(8, 4):uint()
  local record = RECORDS[type] or UNKNOWN
  local id = message:len() > HEADER_SIZE and message(HEADER_SIZE):raw():sub(1, ID_SIZE):match("^[^\0]*") or ""
  local title = string.format("%s, %d bytes", record.name, message:len())
  pinfo.cols.protocol = "DORVE"
  pinfo.cols.info = string.format("%s, %s ", title, id)
  pinfo.cols.info:fence()

  local tree = root:add(dorve, message, "DORVE " .. title)
  local offset, items = add_fields(tree, message, HEADER, 0, true)
  local function mark(name, condition, item)
    if condition then (item or tree):add_proto_expert_info(experts[name]) end
  end
  mark("bad_magic", message(0, 4):uint() ~= MAGIC, items.magic)
  mark("bad_version", message(4, 2):uint() ~= VERSION, items.version)
  mark("bad_type", record == UNKNOWN, items.type)
  mark("bad_length", not valid_length(length), items.length)
  local good = checksum_of(message:raw()) == message(12, 4):uint()
  tree:add(fields.checksum_status, message(12, 4), good and 1 or 0):set_generated()
  mark("bad_checksum", not good, items.checksum)

  offset = add_fields(tree, message, record, offset, false)
  mark("short", record ~= UNKNOWN and message:len() < record.size)
  if offset < message:len() then
    local rest = tree:add(message(offset), string.format("%d bytes after the last field", message:len() - offset))
    mark("long", record ~= UNKNOWN and offset == record.size, rest)
  end
  -- Messages with a wrong checksum or an unknown type are left out, because every receiver rejects them.
  if good and record ~= UNKNOWN then link(tree, pinfo, type % 2 == 0, id) end
  return message:len()
end

function dorve.dissector(tvb, _, root)
  dissect_tcp_pdus(tvb, root, HEADER_SIZE, size_of, dissect_message)
  return tvb:len()
end

DissectorTable.get("tcp.port"):add(PORT, dorve)
