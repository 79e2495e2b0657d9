-- Wireshark dissector for the datagrams in which units announce their shares (UDP port 10000) and
-- for the messages to the display application (TCP port 8080, which the preferences of the protocol
-- VOLDRAKE-MESSAGE change).
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
--
-- A message is a frame on a TCP connection. All numbers are big-endian:
--
--   0   2  number of bytes that follow: 4 + 2n
--   2   2  zero
--   4   2  payload length in bytes: 2n
--   6  2n  the text, one UTF-16 code unit for each byte of it, its high byte zero
--
-- Port 8080 is often used for other things: what does not begin like a frame is left to the dissector
-- that the port had before.

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
    subtree:add_proto_expert_info(experts.malformed, "Units read only 1500 bytes")
  end
  pinfo.cols.info = string.format('%s %s "%s"', TYPE_NAMES[message_type] or "Unknown", path, name)
  return length
end

DissectorTable.get("udp.port"):add(UDP_PORT, voldrake)

-- The messages to the display application

local TCP_PORT = 8080
local LENGTH_BYTES = 2
local FRAME_HEADER_BYTES = 6
local MAX_FRAME_BYTES = FRAME_HEADER_BYTES + 2 * 8190

local message = Proto("voldrake_message", "Voldrake Message to the Display Application")

local message_fields = {
  following = ProtoField.uint16("voldrake_message.following", "Bytes That Follow", base.DEC),
  zero = ProtoField.uint16("voldrake_message.zero", "Zero", base.DEC),
  payload_length = ProtoField.uint16("voldrake_message.payload_length", "Payload Length",
                                     base.DEC),
  text = ProtoField.string("voldrake_message.text", "Text"),
  kind = ProtoField.string("voldrake_message.kind", "Kind"),
  path = ProtoField.string("voldrake_message.path", "Path"),
}
message.fields = message_fields

local message_experts = {
  malformed = ProtoExpert.new("voldrake_message.malformed", "Malformed message",
                              expert.group.MALFORMED, expert.severity.ERROR),
}
message.experts = message_experts

message.prefs.port = Pref.uint("TCP port", TCP_PORT, "Port of the display application")

-- The length of the frame that begins at the offset, or nil when no frame begins so.
local function frame_length(buffer, offset)
  local length = LENGTH_BYTES + buffer(offset, LENGTH_BYTES):uint()
  if length < FRAME_HEADER_BYTES or length > MAX_FRAME_BYTES then
    return nil
  end
  return length
end

-- A character of Latin-1 in UTF-8, for which Lua has a function from version 5.3 on only.
local function utf8_of(character)
  if character < 0x80 then
    return string.char(character)
  end
  return string.char(0xc0 + math.floor(character / 0x40), 0x80 + character % 0x40)
end

-- The text of a payload, a character of Latin-1 for each code unit, in UTF-8. The second value is the
-- number of the first code unit above 00ff, or nil.
local function payload_text(range)
  local characters = {}
  for offset = 0, range:len() - 2, 2 do
    local unit = range(offset, 2):uint()
    if unit > 0xff then
      return nil, offset / 2
    end
    characters[#characters + 1] = utf8_of(unit)
  end
  return table.concat(characters), nil
end

-- Adds kind and path of the text as fields of their own. Comes back with the summary.
local function add_meaning(tree, text)
  local kind, path = text:match('^<message [^>]*><content><data(%a+) path="([^"]*)"')
  if kind ~= "arrival" and kind ~= "removal" then
    tree:add_proto_expert_info(message_experts.malformed, "The text is not a valid message")
    return "No message"
  end
  tree:add(message_fields.kind, kind):set_generated()
  tree:add(message_fields.path, path):set_generated()
  return kind .. " " .. path
end

-- Shows one whole frame.
local function dissect_frame(buffer, pinfo, tree)
  pinfo.cols.protocol = "VOLDRAKE-MESSAGE"
  local length = buffer:len()
  local subtree = tree:add(message, buffer())
  subtree:add(message_fields.following, buffer(0, 2))
  local zero_item = subtree:add(message_fields.zero, buffer(2, 2))
  if buffer(2, 2):uint() ~= 0 then
    zero_item:add_proto_expert_info(message_experts.malformed, "The second field is not zero")
  end
  local length_item = subtree:add(message_fields.payload_length, buffer(4, 2))
  local payload = length - FRAME_HEADER_BYTES
  if buffer(4, 2):uint() ~= payload or payload % 2 ~= 0 then
    length_item:add_proto_expert_info(message_experts.malformed,
                                      string.format("%d bytes follow", payload))
  end
  local summary = "Empty message"
  if payload > 0 then
    local range = buffer(FRAME_HEADER_BYTES, payload)
    local text, above = payload_text(range)
    if above then
      subtree:add_proto_expert_info(message_experts.malformed,
                                    string.format("Code unit %d is above 00ff", above))
      summary = "Malformed message"
    else
      subtree:add(message_fields.text, range, text)
      summary = add_meaning(subtree, text)
    end
  end
  pinfo.cols.info:append(" " .. summary)
  return length
end

local registered_port = 0
local previous_dissector = nil

-- Shows all frames that are whole, and asks for the rest of one that is not.
function message.dissector(buffer, pinfo, tree)
  local offset = 0
  while offset < buffer:len() do
    local there = buffer:len() - offset
    local length = there >= LENGTH_BYTES and frame_length(buffer, offset)
    if length == nil then
      break
    end
    if not length or there < length then
      pinfo.desegment_offset = offset
      pinfo.desegment_len = length and length - there or DESEGMENT_ONE_MORE_SEGMENT
      return buffer:len()
    end
    dissect_frame(buffer(offset, length):tvb(), pinfo, tree)
    offset = offset + length
  end
  if offset == 0 and previous_dissector then
    return previous_dissector:call(buffer, pinfo, tree)
  end
  return offset
end

-- Takes the port that the preferences name and gives back the one that it had.
local function take_port()
  local ports = DissectorTable.get("tcp.port")
  if registered_port ~= 0 then
    ports:remove(registered_port, message)
    if previous_dissector then
      ports:add(registered_port, previous_dissector)
    end
  end
  registered_port = message.prefs.port
  previous_dissector = nil
  if registered_port ~= 0 then
    previous_dissector = ports:get_dissector(registered_port)
    ports:add(registered_port, message)
  end
end

message.prefs_changed = take_port
take_port()
