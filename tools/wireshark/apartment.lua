-- Wireshark dissector for the frames that apartments exchange over TCP.
--
-- Every frame is an 8-byte header (type, payload size; big-endian u32) and
-- its payload. The first frame of a link is the 130-byte connection frame,
-- whose flag says whether the link is real-time: a real-time link carries
-- raw frames (any type number, opaque bytes), the other one requests,
-- responses, alive and alive-acknowledge frames. Strings are a u32 length
-- and that many bytes. Which link a frame is on is remembered per TCP
-- stream from its connection frame; without one, types 1 to 4 are read as
-- messages and anything else as raw.
--
-- Load it for one run:  tshark -X lua_script:apartment.lua -o apartment.ports:7001 -r f.pcap
-- or install it in a Lua plugin folder (tshark -G folders lists them).
-- Apartments pick their ports freely, so the dissector finds links three
-- ways: the "ports" preference, Decode As (tcp.port), and a heuristic that
-- recognises a link by its connection frame.
--
-- Links under TLS: given the session secrets that APARTMENT_TLS_KEYLOG
-- collects (tshark -o tls.keylog_file:FILE), the TLS dissector decrypts the
-- records and hands their bytes here, found the same ways: the ports also
-- go into tls.port, Decode As offers tls.port, and a heuristic in the TLS
-- list takes a connection frame and every later record of its stream. A
-- stream that starts with a TLS record is left to TLS, even on a port
-- given to this dissector.

local apartment = Proto("apartment", "Apartment messaging")

local frame_types = {
    [0] = "Connection", [1] = "Request", [2] = "Response", [3] = "Alive", [4] = "Alive-ack",
}
local response_codes = {
    [0] = "REQUEST_OK", [-1] = "REQUEST_METHOD_NOT_FOUND",
    [-2] = "REQUEST_PARAMETER_ERROR", [-3] = "REQUEST_OPERATE_FAILED",
}
local CONNECTION_SIZE = 130
local URL_FIELD_SIZE = 128

local f = apartment.fields
f.type = ProtoField.uint32("apartment.type", "Frame type", base.DEC, frame_types)
f.length = ProtoField.uint32("apartment.length", "Payload length", base.DEC)
f.link = ProtoField.string("apartment.link", "Link")
f.rt = ProtoField.bool("apartment.rt", "Real-time link")
f.url = ProtoField.string("apartment.url", "Connecting apartment URL")
f.src_url = ProtoField.string("apartment.src_url", "Source apartment URL")
f.src_node = ProtoField.string("apartment.src_node", "Source node")
f.dst_url = ProtoField.string("apartment.dst_url", "Destination apartment URL")
f.dst_node = ProtoField.string("apartment.dst_node", "Destination node")
f.string_length = ProtoField.uint32("apartment.string_length", "String length", base.DEC)
f.request_id = ProtoField.uint32("apartment.request_id", "Request id", base.DEC)
f.requires_response = ProtoField.bool("apartment.requires_response", "Response required")
f.response_code = ProtoField.int32("apartment.response_code", "Response code", base.DEC,
                                   response_codes)
f.alive_url = ProtoField.string("apartment.alive.url", "Sender apartment URL")
f.timer_id = ProtoField.uint32("apartment.alive.timer_id", "Heartbeat timer id", base.DEC)
f.raw_type = ProtoField.uint32("apartment.raw.type", "Raw frame type", base.DEC)
f.data_length = ProtoField.uint32("apartment.data_length", "Data length", base.DEC)
f.data = ProtoField.bytes("apartment.data", "Data")

local malformed = ProtoExpert.new("apartment.malformed", "Malformed apartment frame",
                                  expert.group.MALFORMED, expert.severity.ERROR)
apartment.experts = { malformed }

apartment.prefs.ports = Pref.range("TCP ports", "",
    "TCP ports of apartments (the port in tcp://<IPv4>:<port>)", 65535)

local tcp_stream = Field.new("tcp.stream")
-- TCP stream number -> true (real-time link) or false, from its connection frame.
local links = {}

local function stream_of()
    local stream = tcp_stream()
    return stream and stream.value or -1
end

-- A TLS record header: content type 20 to 23, then version 3.x (x <= 4).
-- Read as a frame header it would be a type above 335 million, which no
-- link opens with: the first frame of a link is its connection frame.
local function starts_tls_record(tvb)
    if tvb:len() < 3 then return false end
    local content = tvb(0, 1):uint()
    return content >= 20 and content <= 23 and tvb(1, 1):uint() == 3 and tvb(2, 1):uint() <= 4
end

function apartment.init()
    links = {}
end

-- Adds a length-prefixed string at `offset`; returns the offset after it,
-- or nil when it runs past the payload.
local function add_string(tree, tvb, offset, field)
    if offset + 4 > tvb:len() then return nil end
    local length = tvb(offset, 4):uint()
    if offset + 4 + length > tvb:len() then return nil end
    local text = length > 0 and tvb(offset + 4, length):string() or ""
    local item = tree:add(field, tvb(offset, 4 + length), text)
    item:add(f.string_length, tvb(offset, 4))
    return offset + 4 + length, text
end

local function add_data(tree, tvb, offset)
    local length = tvb:len() - offset
    tree:add(f.data_length, length):set_generated()
    if length > 0 then tree:add(f.data, tvb(offset, length)) end
    return length
end

local function add_strings(tree, tvb, fields)
    local offset, texts = 8, {}
    for i, field in ipairs(fields) do
        offset, texts[i] = add_string(tree, tvb, offset, field)
        if offset == nil then return nil end
    end
    return offset, texts
end

-- Each returns the summary for the Info column, or nil, reason when the
-- payload does not hold what its type promises.
local function dissect_connection(tree, tvb)
    if tvb:len() - 8 ~= CONNECTION_SIZE then
        return nil, "a connection frame has a payload of " .. CONNECTION_SIZE .. " bytes"
    end
    tree:add(f.rt, tvb(8, 1), tvb(8, 1):uint() ~= 0)
    local url = tvb(9, URL_FIELD_SIZE):stringz()
    tree:add(f.url, tvb(9, URL_FIELD_SIZE), url)
    return "Connection " .. url .. (tvb(8, 1):uint() ~= 0 and " (real-time)" or ""),
           tvb(8, 1):uint() ~= 0
end

local function dissect_request(tree, tvb)
    local offset, s = add_strings(tree, tvb, { f.src_url, f.src_node, f.dst_url, f.dst_node })
    if offset == nil or offset + 5 > tvb:len() then return nil, "the request ends early" end
    local id = tvb(offset, 4):uint()
    tree:add(f.request_id, tvb(offset, 4))
    local flag = tvb(offset + 4, 1):uint() ~= 0
    tree:add(f.requires_response, tvb(offset + 4, 1), flag)
    local length = add_data(tree, tvb, offset + 5)
    return string.format("%s id=%u %s/%s -> %s %u B", flag and "Request" or "Notification", id,
                         s[1], s[2], s[4], length)
end

local function dissect_response(tree, tvb)
    local offset, s = add_strings(tree, tvb, { f.src_url, f.src_node, f.dst_url, f.dst_node })
    if offset == nil or offset + 8 > tvb:len() then return nil, "the response ends early" end
    local id = tvb(offset, 4):uint()
    tree:add(f.request_id, tvb(offset, 4))
    local code = tvb(offset + 4, 4):int()
    tree:add(f.response_code, tvb(offset + 4, 4))
    local length = add_data(tree, tvb, offset + 8)
    return string.format("Response id=%u code=%d %s -> %s/%s %u B", id, code, s[2], s[3], s[4],
                         length)
end

local function dissect_alive(tree, tvb, type)
    local offset, s = add_strings(tree, tvb, { f.alive_url })
    if offset == nil or offset + 4 > tvb:len() then return nil, "the alive frame ends early" end
    local timer = tvb(offset, 4):uint()
    tree:add(f.timer_id, tvb(offset, 4))
    return string.format("%s %s timer=%u", frame_types[type], s[1], timer)
end

local dissect_message = {
    [1] = dissect_request, [2] = dissect_response, [3] = dissect_alive, [4] = dissect_alive,
}

-- One whole frame (header and payload) in `tvb`; returns its summary.
local function dissect_frame(tvb, pinfo, root)
    local type, size = tvb(0, 4):uint(), tvb(4, 4):uint()
    local stream = stream_of()
    local rt = links[stream]
    local tree = root:add(apartment, tvb())

    local summary, reason, link
    if type == 0 and rt == nil then
        tree:add(f.type, tvb(0, 4))
        tree:add(f.length, tvb(4, 4))
        local text, rt_or_reason = dissect_connection(tree, tvb)
        if text then
            links[stream] = rt_or_reason
            summary = text
        else
            reason = rt_or_reason
        end
    elseif rt or (rt == nil and not dissect_message[type]) then
        link = rt and "real-time" or "unknown (no connection frame seen)"
        tree:add(f.raw_type, tvb(0, 4))
        tree:add(f.length, tvb(4, 4))
        local length = add_data(tree, tvb, 8)
        summary = string.format("Raw type=%u %u B", type, length)
    else
        link = rt == false and "non-real-time" or "unknown (no connection frame seen)"
        tree:add(f.type, tvb(0, 4))
        tree:add(f.length, tvb(4, 4))
        if dissect_message[type] then
            summary, reason = dissect_message[type](tree, tvb, type)
        else
            summary = string.format("Type %u (ignored by receivers) %u B", type, size)
        end
    end
    if link then tree:add(f.link, link):set_generated() end
    if summary == nil then
        tree:add_proto_expert_info(malformed, reason)
        summary = string.format("[Malformed %s: %s]", frame_types[type] or "frame", reason)
    end
    tree:append_text(", " .. summary)
    return summary
end

-- Cuts the TCP payload into frames and asks TCP for more bytes when the
-- last one is incomplete (split across segments). Returns 0 for the TLS
-- records of a link on one of the ports, so that TCP offers them to TLS.
function apartment.dissector(tvb, pinfo, root)
    if links[stream_of()] == nil and starts_tls_record(tvb) then return 0 end
    local total, offset, summaries = tvb:len(), 0, {}
    while offset < total do
        local left = total - offset
        if left < 8 then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local size = tvb(offset + 4, 4):uint()
        if left < 8 + size then
            pinfo.desegment_offset = offset
            pinfo.desegment_len = 8 + size - left
            break
        end
        local frame = tvb(offset, 8 + size):tvb()
        local ok, summary = pcall(dissect_frame, frame, pinfo, root)
        if not ok then  -- a bug here must not hide the rest of the capture
            root:add_proto_expert_info(malformed, tostring(summary))
            summary = "[Malformed: " .. tostring(summary) .. "]"
        end
        summaries[#summaries + 1] = summary
        offset = offset + 8 + size
    end
    if #summaries > 0 then
        local text = table.concat(summaries, ", ")
        pinfo.cols.protocol = "Apartment"
        -- Runs after the first over one packet (the rest of a segment, or
        -- the next TLS record, which TLS hands over one at a time) append.
        if pinfo.private.apartment_info then
            pinfo.cols.info:append(", " .. text)
        else
            pinfo.private.apartment_info = "shown"
            pinfo.cols.info = text
            -- What a layer below fenced off (TLS's "Finished") stays first.
            if tostring(pinfo.cols.info) ~= text then pinfo.cols.info = ", " .. text end
        end
    end
    return total
end

-- A link starts with a connection frame: type 0, size 130, a flag byte of
-- 0 or 1 and a URL beginning "tcp://".
local function starts_link(tvb)
    if tvb:len() < 8 or tvb(0, 4):uint() ~= 0 or tvb(4, 4):uint() ~= CONNECTION_SIZE then
        return false
    end
    return tvb:len() < 15 or (tvb(8, 1):uint() <= 1 and tvb(9, 6):string() == "tcp://")
end

local function heuristic(tvb, pinfo, root)
    if not starts_link(tvb) then return false end
    pinfo.conversation = apartment
    apartment.dissector(tvb, pinfo, root)
    return true
end
apartment:register_heuristic("tcp", heuristic)

-- Decrypted TLS records. TLS asks its heuristics again for every record
-- (one written in Lua cannot claim the session), so a stream is taken
-- from its connection frame on. The conversation stays TLS's: its TCP
-- segments must still be decrypted.
local function tls_heuristic(tvb, pinfo, root)
    if links[stream_of()] == nil and not starts_link(tvb) then return false end
    apartment.dissector(tvb, pinfo, root)
    return true
end
apartment:register_heuristic("tls", tls_heuristic)

local port_tables = { DissectorTable.get("tcp.port"), DissectorTable.get("tls.port") }
for _, table in ipairs(port_tables) do table:add_for_decode_as(apartment) end
local registered_ports = ""
function apartment.prefs_changed()
    for _, table in ipairs(port_tables) do
        if registered_ports ~= "" then table:remove(registered_ports, apartment) end
        if apartment.prefs.ports ~= "" then table:add(apartment.prefs.ports, apartment) end
    end
    registered_ports = apartment.prefs.ports
end
