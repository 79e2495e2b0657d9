-- Wireshark dissector for the datagrams in which units announce their shares (UDP port 10000).
--
-- Use: wireshark -X lua_script:voldrake.lua, or put the file into the personal plugin folder that
-- Help > About > Folders names. All numbers are little-endian:
--
--   0   4  magic 0x12345678       12  2  read-only
--   4   2  version 1              14  2  length of the path      each with its zero byte
--   6   2  1 announce, 2 withdraw 16  2  length of the key
--   8   2  constant 1000          18  2  length of the friendly name
--   10  2  media type             20     the three texts; nothing follows
--
-- "Malformed" marks what no unit sends; a unit that receives it may still take it, since it asks
-- for 21 bytes and the magic only. The port is not reserved for units: a datagram without the magic
-- is left to other dissectors.

local UDP_PORT = 10000
local HEADER_BYTES = 20
local MAX_BYTES = 1500
local MAGIC = "\x78\x56\x34\x12"
local VERSION = 1
local CONSTANT = 1000
local TYPE_NAMES = { [1] = "Announce", [2] = "Withdraw" }

local voldrake = Proto("voldrake", "Voldrake Share Announcement")

local fields = {
  magic = ProtoField.uint32("voldrake.magic", "Magic", base.HEX),
  version = ProtoField.uint16("voldrake.version", "Version", base.DEC),
  type = ProtoField.uint16("voldrake.type", "Message Type", base.DEC, TYPE_NAMES),
  constant = ProtoField.uint16("voldrake.constant", "Constant", base.DEC),
  media_type = ProtoField.uint16("voldrake.media_type", "Media Type", base.DEC),
  read_only = ProtoField.uint16("voldrake.read_only", "Read-Only", base.DEC),
  path_length = ProtoField.uint16("voldrake.path_length", "Path Length", base.DEC),
  key_length = ProtoField.uint16("voldrake.key_length", "Key Length", base.DEC),
  name_length = ProtoField.uint16("voldrake.name_length", "Friendly Name Length", base.DEC),
  path = ProtoField.string("voldrake.path", "Path"),
  key = ProtoField.string("voldrake.key", "Key"),
  name = ProtoField.string("voldrake.name", "Friendly Name"),
  trailer = ProtoField.bytes("voldrake.trailer", "Trailing Bytes"),
}
voldrake.fields = fields

local experts = {
  malformed = ProtoExpert.new("voldrake.malformed", "Malformed announcement",
                              expert.group.MALFORMED, expert.severity.ERROR),
  truncated = ProtoExpert.new("voldrake.truncated", "Truncated announcement",
                              expert.group.MALFORMED, expert.severity.ERROR),
  unexpected = ProtoExpert.new("voldrake.unexpected", "Unexpected value",
                               expert.group.PROTOCOL, expert.severity.WARN),
}
voldrake.experts = experts

-- Adds a 16-bit number and comes back with its value and its item.
local function add_number(tree, field, buffer, offset)
  local range = buffer(offset, 2)
  return range:le_uint(), tree:add_le(field, range)
end

local function expect(item, value, expected)
  if value ~= expected then
    local text = string.format("%d instead of %d", value, expected)
    item:add_proto_expert_info(experts.unexpected, text)
  end
end

-- Adds the header. Comes back with the message type and the three text lengths.
local function add_header(tree, buffer)
  tree:add_le(fields.magic, buffer(0, 4))
  local version, version_item = add_number(tree, fields.version, buffer, 4)
  expect(version_item, version, VERSION)
  local message_type, type_item = add_number(tree, fields.type, buffer, 6)
  if not TYPE_NAMES[message_type] then
    type_item:add_proto_expert_info(experts.malformed, "The message type is neither 1 nor 2")
  end
  local constant, constant_item = add_number(tree, fields.constant, buffer, 8)
  expect(constant_item, constant, CONSTANT)
  add_number(tree, fields.media_type, buffer, 10)
  local _, read_only_item = add_number(tree, fields.read_only, buffer, 12)
  read_only_item:append_text(buffer(12, 2):le_uint() ~= 0 and " (read-only)" or " (writable)")
  local lengths = {}
  for index, field in ipairs({ fields.path_length, fields.key_length, fields.name_length }) do
    lengths[index] = add_number(tree, field, buffer, 12 + 2 * index)
  end
  return message_type, lengths
end

-- The number of bytes before the first zero byte of the range, or nil.
local function zero_position(range)
  for position = 0, range:len() - 1 do
    if range(position, 1):uint() == 0 then
      return position
    end
  end
  return nil
end

-- Adds one text of `length` bytes, its zero byte included, as far as it is there. Comes back with
-- the text for the summary and the offset behind it.
local function add_text(tree, field, label, buffer, offset, length)
  local there = math.min(length, buffer:len() - offset)
  if there < length then
    tree:add_proto_expert_info(experts.truncated, label .. " is cut off")
  end
  if length == 0 then
    tree:add_proto_expert_info(experts.malformed, label .. " has no zero byte")
  end
  if there <= 0 then
    return "", offset
  end
  local range = buffer(offset, there)
  local zero = zero_position(range)
  local characters = range(0, zero or there)
  local item = tree:add_packet_field(field, characters, ENC_UTF_8 + ENC_STRING)
  item:set_len(there)
  if there == length and not zero then
    item:add_proto_expert_info(experts.malformed, label .. " does not end with a zero byte")
  elseif zero and zero + 1 < length then
    item:add_proto_expert_info(experts.malformed, label .. " ends before its length")
  end
  return characters:string(ENC_UTF_8), offset + there
end

-- Adds the three texts and what follows them. Comes back with the path and the friendly name.
local function add_texts(tree, buffer, lengths)
  local offset = HEADER_BYTES
  local path, key, name
  path, offset = add_text(tree, fields.path, "The path", buffer, offset, lengths[1])
  key, offset = add_text(tree, fields.key, "The key", buffer, offset, lengths[2])
  name, offset = add_text(tree, fields.name, "The friendly name", buffer, offset, lengths[3])
  if offset < buffer:len() then
    local item = tree:add(fields.trailer, buffer(offset))
    item:add_proto_expert_info(experts.malformed, "Bytes follow the friendly name")
  end
  return path, name
end

-- True when the datagram begins with the magic, or is shorter and begins like it.
local function is_announcement(buffer)
  local compared = math.min(#MAGIC, buffer:len())
  return buffer:raw(0, compared) == MAGIC:sub(1, compared)
end

function voldrake.dissector(buffer, pinfo, tree)
  if not is_announcement(buffer) then
    return 0
  end
  pinfo.cols.protocol = "VOLDRAKE"
  local length = buffer:len()
  local subtree = tree:add(voldrake, buffer())
  if length < HEADER_BYTES then
    pinfo.cols.info = "Truncated announcement"
    subtree:add_proto_expert_info(experts.truncated, "The header is cut off")
    return length
  end
  local message_type, lengths = add_header(subtree, buffer)
  local path, name = add_texts(subtree, buffer, lengths)
  if length > MAX_BYTES then
    subtree:add_proto_expert_info(experts.malformed, "Units read 1500 bytes only")
  end
  pinfo.cols.info = string.format('%s %s "%s"', TYPE_NAMES[message_type] or "Unknown", path, name)
  return length
end

DissectorTable.get("udp.port"):add(UDP_PORT, voldrake)
