
-- The dissector of captures of QMI messages: link type 147 (USER0), a QMUX frame a packet. generate.cpp puts the
-- tables with the names of services, messages, TLVs and fields before this text. Nothing is read before its length has
-- been checked.
--
-- Display filters: pelmar_qmi.msg == "READ_NV", pelmar_qmi.error != 0, pelmar_qmi.time > 0.1, pelmar_qmi.item == 10.

local qmi = Proto("pelmar_qmi", "QMI")
local KINDS = {[0] = "request", [1] = "response", [2] = "indication"}

local service_names = {}
for number, service in pairs(services) do service_names[number] = service.name end

local head = {
  direction = ProtoField.uint8("pelmar_qmi.direction", "Direction", base.HEX, {[0] = "to the modem", [128] = "from the modem"}),
  service = ProtoField.uint8("pelmar_qmi.service", "Service", base.HEX, service_names),
  client = ProtoField.uint8("pelmar_qmi.client", "Client"),
  kind = ProtoField.string("pelmar_qmi.kind", "Kind"),
  transaction = ProtoField.uint16("pelmar_qmi.transaction", "Transaction"),
  id = ProtoField.uint16("pelmar_qmi.msg_id", "Message id", base.HEX),
  msg = ProtoField.string("pelmar_qmi.msg", "Message"),
  tlv = ProtoField.uint8("pelmar_qmi.tlv", "TLV", base.HEX),
  error_name = ProtoField.string("pelmar_qmi.error_name", "Error name"),
  statistic = ProtoField.string("pelmar_qmi.statistic", "statistic"),
  undescribed = ProtoField.bytes("pelmar_qmi.undescribed", "undescribed"),
  request_in = ProtoField.framenum("pelmar_qmi.request_in", "Request in", base.NONE, frametype.REQUEST),
  response_in = ProtoField.framenum("pelmar_qmi.response_in", "Response in", base.NONE, frametype.RESPONSE),
  time = ProtoField.double("pelmar_qmi.time", "Seconds since the request"),
}
local value = {}
for name, kind in pairs(fields) do
  value[name] = ProtoField[kind]("pelmar_qmi." .. name, (name:gsub("_" .. kind .. "$", "")))
end
local all = {}
for _, field in pairs(head) do all[#all + 1] = field end
for _, field in pairs(value) do all[#all + 1] = field end
qmi.fields = all

local wrong_length = ProtoExpert.new("pelmar_qmi.wrong_length", "The lengths of the message are wrong",
                                     expert.group.MALFORMED, expert.severity.ERROR)
qmi.experts = {wrong_length}

-- Requests with their responses, by frame; made when frames are seen for the first time, which is in their order.
local interface = Field.new("frame.interface_id")
local open, peers, seen = {}, {}, 0
function qmi.init() open, peers, seen = {}, {}, 0 end

local function pair(pinfo, kind, key)
  if pinfo.number <= seen then return end
  seen = pinfo.number
  if kind == 0 then
    open[key] = {frame = pinfo.number, time = pinfo.rel_ts}
  elseif kind == 1 and open[key] then
    peers[open[key].frame] = {frame = pinfo.number}
    peers[pinfo.number] = {frame = open[key].frame, time = pinfo.rel_ts - open[key].time}
    open[key] = nil
  end
end

local function add_statistic(row, bytes, tree)
  tree:add(head.statistic, bytes, row.name)
  local at = 0
  for _, field in ipairs(row) do
    tree:add_le(value[field.field], bytes(at, field.width))
    at = at + field.width
  end
end

-- Adds a value, and returns where it ends: nothing if it would end behind `stop`.
local function add_value(element, bytes, at, stop, is_whole, kind, tree, state)
  local count = element.list or 1
  if element.count and not (element.kind == "string" and is_whole) then
    if at + element.count > stop then return nil end
    count = bytes(at, element.count):le_uint()
    at = at + element.count
  elseif element.kind == "string" then
    count = stop - at
  end
  if element.kind == "string" or element.kind == "bytes" then
    if at + count > stop then return nil end
    if count == 0 then return at end
    local range = bytes(at, count)
    local row = statistics[state.last]
    if element.statistic and kind ~= 0 and row and row.length == count then
      add_statistic(row, range, tree)
    else
      tree:add(value[element.field], range)
    end
    return at + count
  end
  for _ = 1, count do
    if element.type then
      if at >= stop then return nil end
      local branch = tree:add(qmi, bytes(at, 0), element.name)
      for _, member in ipairs(element.type) do
        at = add_value(member, bytes, at, stop, false, kind, branch, state)
        if not at then return nil end
      end
    else
      if at + element.width > stop then return nil end
      local range = bytes(at, element.width)
      if element.width <= 4 then state.last = range:le_uint() end
      tree:add_le(value[element.field], range)
      if element.name == "error" then tree:add(head.error_name, range, errors[state.last] or "unknown") end
      at = at + element.width
    end
  end
  return at
end

-- Every response has the same result, also one of a message that is not described.
local result_row = services[0].rows[1][0x22][2]

local function add_tlvs(bytes, rows, kind, tree)
  local at, state = 0, {}
  while at + 3 <= bytes:len() do
    local number, stop = bytes(at, 1):uint(), at + 3 + bytes(at + 1, 2):le_uint()
    local is_whole = stop <= bytes:len()
    if not is_whole then stop = bytes:len() end
    local row = rows and rows[number] or kind == 1 and number == 2 and result_row
    local branch = tree:add(head.tlv, bytes(at, 1))
    branch:set_len(stop - at)
    if row then branch:append_text(" " .. row.name) end
    local done = at + 3
    if row then
      done = add_value(row, bytes, done, stop, true, kind, branch, state)
      if row.name == "result" and done then state.error = state.last end
    end
    if done ~= stop then branch:add(head.undescribed, bytes(done or at + 3, stop - (done or at + 3))) end
    if not is_whole or (row and done ~= stop) then branch:add_proto_expert_info(wrong_length) end
    at = stop
  end
  if at < bytes:len() then tree:add(head.undescribed, bytes(at)):add_proto_expert_info(wrong_length) end
  return state.error
end

function qmi.dissector(bytes, pinfo, root)
  if bytes:len() < 12 or bytes(0, 1):uint() ~= 1 then return 0 end
  local number, is_control = bytes(4, 1):uint(), bytes(4, 1):uint() == 0
  local begin = is_control and 12 or 13
  if bytes:len() < begin then return 0 end
  local service = services[number] or {name = string.format("0x%02x", number), messages = {}, rows = {}}
  local kind = bytes(6, 1):uint() / (is_control and 1 or 2)
  local transaction = bytes(7, is_control and 1 or 2)
  local id = bytes(begin - 4, 2)
  local name = service.messages[id:le_uint()] or string.format("0x%04x", id:le_uint())
  local from_modem = bytes(3, 1):uint() == 128
  local kind_name = KINDS[kind] or "unknown"

  local tree = root:add(qmi, bytes(), string.format("QMI %s %s %s", service.name, name, kind_name))
  tree:add(head.direction, bytes(3, 1))
  tree:add(head.service, bytes(4, 1))
  tree:add(head.client, bytes(5, 1))
  tree:add(head.kind, bytes(6, 1), kind_name)
  tree:add_le(head.transaction, transaction)
  tree:add_le(head.id, id)
  tree:add(head.msg, id, name)
  local rows = service.rows[kind] and service.rows[kind][id:le_uint()]
  local error = nil
  if bytes:len() > begin then error = add_tlvs(bytes(begin):tvb(), rows, kind, tree) end

  pair(pinfo, kind, string.format("%s %d %d %d", tostring(interface()), number, bytes(5, 1):uint(), transaction:le_uint()))
  local peer = peers[pinfo.number]
  if peer then tree:add(kind == 0 and head.response_in or head.request_in, peer.frame):set_generated() end
  if peer and peer.time then tree:add(head.time, peer.time):set_generated() end

  pinfo.cols.protocol:set("QMI " .. service.name)
  pinfo.cols.src:set(from_modem and "modem" or "client " .. bytes(5, 1):uint())
  pinfo.cols.dst:set(from_modem and "client " .. bytes(5, 1):uint() or "modem")
  local result = error and " " .. (errors[error] or "error " .. error) or ""
  pinfo.cols.info:set(string.format("%s %s #%d%s", name, kind_name, transaction:le_uint(), result))
  return bytes:len()
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, qmi)
