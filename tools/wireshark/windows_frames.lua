-- Shows the framed messages of libWindows.so.0 in Wireshark and tshark: each is a length of 4 bytes, most significant
-- byte first, and as many bytes of payload. README.md tells how to install it.
--
-- A frame does not say what it holds. One is taken for a text if no byte of it is a control character; texts are sent
-- without a NUL at their end, and a receiver of texts reads up to the first NUL of a payload that has one.
--
-- A length that cannot be right leaves no way to find the next frame: what the same side sends behind it is shown as
-- out of step, without a guess.

local frames = Proto("windows_frames", "Framed Messages")

frames.prefs.ports = Pref.range("TCP ports", "", "Ports on which frames are expected, such as 4711,5000-5010", 65535)
frames.prefs.limit = Pref.uint("Longest payload", 16777216, "Lengths above this many bytes are taken for an error")

local fields = frames.fields
fields.length = ProtoField.uint32("windows_frames.length", "Length", base.DEC)
fields.kind = ProtoField.string("windows_frames.kind", "Kind")
fields.text = ProtoField.string("windows_frames.text", "Text")
fields.payload = ProtoField.bytes("windows_frames.payload", "Payload")
fields.lost = ProtoField.framenum("windows_frames.out_of_step", "Out of step since", base.NONE)

local experts = {
    negative = ProtoExpert.new("windows_frames.length.negative", "Negative length", expert.group.MALFORMED,
        expert.severity.ERROR),
    absurd = ProtoExpert.new("windows_frames.length.absurd", "Absurd length", expert.group.MALFORMED,
        expert.severity.WARN),
    empty = ProtoExpert.new("windows_frames.length.zero", "Empty frame", expert.group.PROTOCOL, expert.severity.NOTE),
    cut = ProtoExpert.new("windows_frames.cut", "Frame not captured whole", expert.group.UNDECODED,
        expert.severity.NOTE),
}
frames.experts = experts

local PREFIX = 4
local tcp_stream = Field.new("tcp.stream")
local tcp_source = Field.new("tcp.srcport")

-- The packet in which each direction of a connection got out of step.
local out_of_step = {}

-- Called for each file, and again when a preference changes.
function frames.init()
    out_of_step = {}
end

local function direction()
    return tostring(tcp_stream()) .. " " .. tostring(tcp_source())
end

-- Tab and the ends of lines belong to a text; all bytes above 127 do.
local function is_text(bytes)
    return bytes:find("[%z\1-\8\11\12\14-\31\127]") == nil
end

-- Several frames of a packet stand one behind the other in the Info column, also those that TCP hands on in turn.
local function summarize(pinfo, text)
    if pinfo.private["windows_frames"] then
        text = " | " .. text
    else
        pinfo.cols.protocol = "FRAMES"
        pinfo.cols.info:clear()
    end
    pinfo.private["windows_frames"] = "1"
    pinfo.cols.info:append(text)
    pinfo.cols.info:fence()
end

local function abbreviated(text)
    text = text:gsub("%c", " ")
    return #text <= 60 and text or text:sub(1, 60) .. "..."
end

-- range begins at the prefix and ends with the payload, or earlier in a capture that is cut.
local function show_frame(range, length, pinfo, root)
    local tree = root:add(frames, range)
    local length_item = tree:add(fields.length, range(0, PREFIX))
    if length == 0 then
        tree:append_text(", empty")
        summarize(pinfo, "empty (0)")
        length_item:add_proto_expert_info(experts.empty, "Empty frame: its receiver is told that nothing is there")
        return
    end
    local captured = range:len() - PREFIX
    if captured < length then
        tree:add_proto_expert_info(experts.cut, string.format("Only %d of %d bytes are here", captured, length))
    end
    if captured == 0 then
        summarize(pinfo, string.format("? (%d)", length))
        return
    end
    local payload = range(PREFIX)
    local text = is_text(payload:raw()) and payload:string(ENC_UTF_8)
    local kind = text and "text" or "binary"
    tree:add(fields.kind, payload, kind):set_generated()
    if text then
        tree:add(fields.text, payload, text)
    end
    tree:add(fields.payload, payload)
    tree:append_text(string.format(", %s, %d bytes", kind, length))
    summarize(pinfo, string.format("%s (%d)%s", kind, length, text and " " .. abbreviated(text) or ""))
end

local function show_bad_length(range, length, pinfo, root)
    local tree = root:add(frames, range)
    local item = tree:add(fields.length, range(0, PREFIX))
    if length >= 0x80000000 then
        item:add_proto_expert_info(experts.negative,
            string.format("Negative length: a receiver sees %d", length - 0x100000000))
    else
        item:add_proto_expert_info(experts.absurd,
            string.format("Absurd length: more than %d bytes (see the preferences)", frames.prefs.limit))
    end
    tree:append_text(string.format(", length %d", length))
    summarize(pinfo, string.format("bad length %d", length))
    out_of_step[direction()] = pinfo.number
end

function frames.dissector(buffer, pinfo, root)
    local since = out_of_step[direction()]
    if since and pinfo.number > since then
        local tree = root:add(frames, buffer())
        tree:add(fields.lost, buffer(), since):set_generated()
        tree:append_text(", out of step")
        summarize(pinfo, "out of step since packet " .. since)
        return buffer:len()
    end

    local can_wait = pinfo.can_desegment > 0 and buffer:len() == buffer:reported_len()
    local offset = 0
    while offset < buffer:len() do
        local here = buffer:len() - offset
        local length = here >= PREFIX and buffer(offset, PREFIX):uint()
        if length and (length > frames.prefs.limit or length >= 0x80000000) then
            show_bad_length(buffer(offset), length, pinfo, root)
            return buffer:len()
        end
        if not length or here < PREFIX + length then
            if can_wait then
                pinfo.desegment_offset = offset
                pinfo.desegment_len = length and PREFIX + length - here or DESEGMENT_ONE_MORE_SEGMENT
            elseif length then
                show_frame(buffer(offset), length, pinfo, root)
            end
            return buffer:len()
        end
        show_frame(buffer(offset, PREFIX + length), length, pinfo, root)
        offset = offset + PREFIX + length
    end
    return buffer:len()
end

local tcp_ports = DissectorTable.get("tcp.port")
local ports = ""

function frames.prefs_changed()
    if ports == frames.prefs.ports then
        return
    end
    if ports ~= "" then
        tcp_ports:remove(ports, frames)
    end
    ports = frames.prefs.ports
    if ports ~= "" then
        tcp_ports:add(ports, frames)
    end
end

tcp_ports:add_for_decode_as(frames)
