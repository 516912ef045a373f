-- The frames that controller and cards exchange, and the packets of bus blocks, for Wireshark and tshark.
--
-- Takes every frame between the two addresses whatever its type field says, names the fields as the controller's code
-- does, checks lengths and checksums, and finds for each request its answer, and the earlier one that it repeats.
-- Whether an answer comes is known only once the capture was read: tshark tells it of requests with `-2 -R rvk`.

local is_new, rvk = pcall(Proto, "rvk", "Controller and cards")
if not is_new then return end -- loaded already: it is installed, and named on the command line too

-- None in the older capture format, nor when tshark first reads a capture, unless it has a filter for that (`-R rvk`).
local interface_id = Field.new("frame.interface_id")

-- Layouts: offsets from the frame's first byte, little-endian.
local request = { model = 16, slot = 18, seq = 19, code = 21, addr = 22, len = 26, payload = 28 }
local reply = { ack = 16, model = 17, slot = 19, seq = 20, code = 22, addr = 23, len = 27, payload = 29 }
local bus = { length = 6, rsv0 = 10, type = 11, ethertype = 12, rsv1 = 14, addr = 16, data_len = 20, data = 24 }
local cards, controller = "eb:90:eb:90:eb:90", "44:44:44:44:44:44"
local frame_data_max, frame_data_min, checksum_bytes, checksum_start = 1400, 64, 2, 0x5555
local bus_overhead, bus_short_packet = 26, 90
local read, plain_write, ack_short, ack_write = 0x00, 0x01, 0x10, 0x11
local no_answer = 255

-- Addresses that mean something: first and last, of which card (nil: any), name.
local registers = {
    { 0xA0, 0xA0, 0, 1, "playback start" }, { 0xA1, 0xA1, 0, 1, "output timing load" },
    { 0xA2, 0xA2, 0, 1, "playback interval" }, { 0xA6, 0xA6, 0, 1, "playback picture number" },
    { 0xA7, 0xA7, 0, 1, "timing reset" }, { 0x22002, 0x22002, 0, 1, "output timing, first part" },
    { 0x2200A, 0x2200A, 0, 1, "output timing, second part" }, { 0x30082, 0x30082, 0, 1, "LVDS status" },
    { 0xF00009, 0xF00009, 0, 1, "readiness" }, { 0x10000015, 0x10000015, 0, 2, "generation" },
    -- The first pair is for all picture buffers but 16 to 25.
    { 0x7040, 0x7040, nil, nil, "picture control" }, { 0x40000, 0x40000, nil, nil, "picture data" },
    { 0x7080, 0x7080, nil, nil, "picture control 16-25" }, { 0x60000, 0x60000, nil, nil, "picture data 16-25" },
    { 0xA0001, 0xA0001, 0, 0, "picture loader command, memory 0" },
    { 0xB0000, 0xB3BFF, 0, 0, "picture loader data, memory 0" },
    { 0xE0001, 0xE0001, 0, 0, "picture loader command, memory 1" },
    { 0xF0000, 0xF3BFF, 0, 0, "picture loader data, memory 1" },
    { 0xA0008, 0xA0008, nil, nil, "read-back command" }, { 0xA00FF, 0xA00FF, nil, nil, "read-back start" },
    { 0xA0FFD, 0xA0FFD, nil, nil, "read-back status" }, { 0xB0000, 0xB0000, nil, nil, "read-back window" },
    { 0x11F00000, 0x11F00000, 0, nil, "firmware total_files_size" },
    { 0x11F00004, 0x11F00004, 0, nil, "firmware files_recv_len" },
    { 0x11F00008, 0x11F00008, 0, nil, "firmware total_files_count" },
    { 0x11F0000C, 0x11F0000C, 0, nil, "firmware current_file_size" },
    { 0x11F00010, 0x11F00010, 0, nil, "firmware v" }, { 0x18200000, 0x18200000, 0, nil, "firmware device_type" },
    { 0x18200002, 0x18200002, 0, nil, "firmware card_modelid" }, { 0x18000000, 0x18000000, 0, nil, "firmware data" },
}

local codes = { [read] = "read", [plain_write] = "plain write", [ack_short] = "acknowledgement",
                [ack_write] = "acknowledged write" }
local acks = { { 0, 0, "good" }, { 1, 254, "refused" }, { no_answer, no_answer, "as if it had not come" } }
local bus_types = { [0] = "write", [1] = "read", [2] = "read-back data", [3] = "response" }
local by_range = base.RANGE_STRING

local f = {
    destination = ProtoField.ether("rvk.destination", "destination"),
    source = ProtoField.ether("rvk.source", "source"),
    type = ProtoField.uint16("rvk.type", "type", base.HEX),
    sync = ProtoField.uint16("rvk.sync", "sync", base.HEX),
    ack = ProtoField.uint8("rvk.ack", "ack", base.DEC + by_range, acks),
    model = ProtoField.uint16("rvk.model", "model", base.HEX),
    slot = ProtoField.uint8("rvk.slot", "slot"),
    seq = ProtoField.uint16("rvk.seq", "seq"),
    code = ProtoField.uint8("rvk.code", "code", base.HEX, codes),
    addr = ProtoField.uint32("rvk.addr", "addr", base.HEX),
    register = ProtoField.string("rvk.register", "register"),
    len = ProtoField.uint16("rvk.len", "len"),
    payload = ProtoField.bytes("rvk.payload", "payload"),
    padding = ProtoField.bytes("rvk.padding", "padding"),
    checksum = ProtoField.uint16("rvk.checksum", "checksum", base.HEX),
    request_in = ProtoField.framenum("rvk.request_in", "Answers the request in", base.NONE, frametype.REQUEST),
    reply_in = ProtoField.framenum("rvk.reply_in", "Answered in", base.NONE, frametype.RESPONSE),
    time = ProtoField.relative_time("rvk.time", "Time since the request"),
    resend_of = ProtoField.framenum("rvk.resend_of", "First sent in", base.NONE, frametype.RETRANS_PREV),
    resent_in = ProtoField.framenum("rvk.resent_in", "Sent again in", base.NONE, frametype.RETRANS_NEXT),
    duplicate_of = ProtoField.framenum("rvk.duplicate_of", "Already answered in", base.NONE, frametype.DUP_ACK),
    bus_length = ProtoField.uint32("rvk.bus.length", "length"),
    bus_rsv0 = ProtoField.uint8("rvk.bus.rsv0", "rsv0", base.HEX),
    bus_type = ProtoField.uint8("rvk.bus.type", "type", base.DEC, bus_types),
    bus_ethertype = ProtoField.uint16("rvk.bus.ethertype", "ethertype", base.HEX),
    bus_rsv1 = ProtoField.uint16("rvk.bus.rsv1", "rsv1", base.HEX),
    bus_addr = ProtoField.uint32("rvk.bus.addr", "addr", base.HEX),
    bus_data_len = ProtoField.uint32("rvk.bus.data_len", "data_len"),
    bus_ack = ProtoField.uint8("rvk.bus.ack", "ack", base.DEC + by_range, { { 0, 0, "good" }, { 1, 255, "refused" } }),
    bus_data = ProtoField.bytes("rvk.bus.data", "data"),
}
rvk.fields = f

local group, severity = expert.group, expert.severity
local e = {
    short = ProtoExpert.new("rvk.short", "Too short for its header", group.MALFORMED, severity.ERROR),
    sync = ProtoExpert.new("rvk.sync.bad", "Wrong sync bytes or type", group.MALFORMED, severity.ERROR),
    len = ProtoExpert.new("rvk.len.bad", "A length that does not fit the frame", group.MALFORMED, severity.ERROR),
    checksum = ProtoExpert.new("rvk.checksum.bad", "Wrong checksum", group.CHECKSUM, severity.ERROR),
    code = ProtoExpert.new("rvk.code.unknown", "Unknown code or type", group.PROTOCOL, severity.WARN),
    refused = ProtoExpert.new("rvk.refused", "Refused by the card", group.RESPONSE_CODE, severity.WARN),
    empty = ProtoExpert.new("rvk.unusable", "An answer of no use", group.RESPONSE_CODE, severity.WARN),
    unanswered = ProtoExpert.new("rvk.unanswered", "No answer in this capture", group.SEQUENCE, severity.NOTE),
    resend = ProtoExpert.new("rvk.resend", "Sent again", group.SEQUENCE, severity.NOTE),
    stray = ProtoExpert.new("rvk.stray", "Answers no pending request", group.SEQUENCE, severity.NOTE),
    card = ProtoExpert.new("rvk.card.differs", "Another card than was asked", group.SEQUENCE, severity.NOTE),
}
rvk.experts = e

----------------------------------------------------------------------------------------------------------------------
-- Requests and their answers. Found in the first pass over the capture, in order; kept by frame number for later ones.

local pending    -- by key: requests, the oldest first
local requests   -- by frame number: { of = request, n = which of its sends }
local answers    -- by frame number: what an answer was found to be

function rvk.init() pending, requests, answers = {}, {}, {} end

local forgotten_after = 10 -- s; nobody waits longer for an answer

local function is_open(r, time) return not r.ended and time - r.sends[#r.sends].time <= forgotten_after end

-- The same bytes as of a request of its key that has no good answer are that request, sent again.
-- card: model and slot that it is for. silent: no answer is expected. data_len: of a read of a bus block.
local function file_request(key, number, time, bytes, what)
    local kept, r = {}, nil
    for _, old in ipairs(pending[key] or {}) do
        if is_open(old, time) then table.insert(kept, old) end
        if is_open(old, time) and not what.silent and old.bytes == bytes then r = old end
    end
    if r == nil then
        r = { bytes = bytes, what = what, sends = {} }
        table.insert(kept, r)
    end
    table.insert(r.sends, { frame = number, time = time })
    pending[key], requests[number] = kept, { of = r, n = #r.sends }
end

-- An answer ends every open request of its key that has none yet; there may be two, since those that are waited for and
-- those that are not are numbered apart. ends: not when the request may be sent again for it. Result: there was one.
local function file_answer(key, number, time, ends, fits)
    local found, last = nil, nil
    for _, r in ipairs(pending[key] or {}) do
        local sent = r.sends[#r.sends]
        if is_open(r, time) and not sent.answer and fits(r) then
            found = found or { request = r, sent = sent }
            sent.answer, r.ended = number, ends
        elseif sent.answer then
            last = sent.answer
        end
    end
    answers[number] = found or { duplicate_of = last }
    return found ~= nil
end

local function add_framenum(tree, field, number) tree:add(field, number):set_generated() end

local function show_request(tree, pinfo, notes)
    local found = requests[pinfo.number]
    if found == nil then return end
    local r, sent, following = found.of, found.of.sends[found.n], found.of.sends[found.n + 1]
    if found.n > 1 then
        add_framenum(tree, f.resend_of, r.sends[1].frame)
        tree:add_proto_expert_info(e.resend, "Sent again: the same bytes as in frame " .. r.sends[1].frame)
        table.insert(notes, "sent again, first in " .. r.sends[1].frame)
    end
    if following then add_framenum(tree, f.resent_in, following.frame) end
    if sent.answer then
        add_framenum(tree, f.reply_in, sent.answer)
    elseif pinfo.visited and not r.what.silent then
        tree:add_proto_expert_info(e.unanswered, following and "No valid answer before it was sent again"
            or "No valid answer in this capture")
        table.insert(notes, "no answer")
    end
end

local function show_answer(tree, pinfo, card, notes)
    local found = answers[pinfo.number]
    if found == nil then return end
    if found.request == nil then
        local why = found.duplicate_of and "answered before, in frame " .. found.duplicate_of or "no request for it"
        if found.duplicate_of then add_framenum(tree, f.duplicate_of, found.duplicate_of) end
        tree:add_proto_expert_info(e.stray, "Ignored: " .. why)
        table.insert(notes, why)
        return
    end
    local passed = math.floor((pinfo.rel_ts - found.sent.time) * 1e6 + 0.5) -- more is not in the number
    add_framenum(tree, f.request_in, found.sent.frame)
    tree:add(f.time, NSTime(math.floor(passed / 1e6), passed % 1e6 * 1000)):set_generated()
    local asked = found.request.what.card
    if card ~= asked then
        tree:add_proto_expert_info(e.card, "The request was for " .. asked)
        table.insert(notes, "asked was " .. asked)
    end
end

----------------------------------------------------------------------------------------------------------------------
-- Fields

-- The sum of the bytes from `from` to before `to`, modulo 65,536.
local function sum(tvb, from, to)
    local bytes, total = tvb:raw(from, to - from), 0
    local i, whole = 1, #bytes - #bytes % 8
    while i < whole do
        local a, b, c, d, g, h, j, k = bytes:byte(i, i + 7)
        total, i = total + a + b + c + d + g + h + j + k, i + 8
    end
    for rest = i, #bytes do total = total + bytes:byte(rest) end
    return total % 65536
end

-- Shows the checksum at `at` beside what it should be. Result: nothing speaks against it.
local function check(tree, tvb, at, should_be, notes)
    if tvb:len() < tvb:reported_len() then return true end -- not all of the frame was kept
    local item, carried = tree:add_le(f.checksum, tvb(at, checksum_bytes)), tvb(at, checksum_bytes):le_uint()
    if carried == should_be then
        item:append_text(" (right)")
        return true
    end
    item:append_text(string.format(" (wrong, should be 0x%04x)", should_be))
    item:add_proto_expert_info(e.checksum, string.format("Checksum 0x%04x should be 0x%04x", carried, should_be))
    table.insert(notes, "wrong checksum")
    return false
end

local function complain(tree, what, text, notes)
    tree:add_proto_expert_info(what, text)
    table.insert(notes, text)
end

local function is_too_short(tree, tvb, pinfo, header, notes)
    if tvb:len() >= header then return false end
    if tvb:reported_len() < header then
        complain(tree, e.short, string.format("%d bytes, the header alone has %d", tvb:reported_len(), header), notes)
    end
    return true
end

local function add_bytes(tree, tvb, field, from, to)
    to = math.min(to, tvb:len())
    if from < to then tree:add(field, tvb(from, to - from)) end
end

local function register_of(addr, model, slot)
    for _, r in ipairs(registers) do
        if addr >= r[1] and addr <= r[2] and (r[3] or model) == model and (r[4] or slot) == slot then return r[5] end
    end
end

local function key_of(...)
    local id = interface_id()
    return table.concat({ id and tostring(id.value) or "0", ... }, " ")
end

-- The line of a frame, what is to be noted of it in front.
local function line_with(notes, line)
    return (#notes > 0 and "[" .. table.concat(notes, "; ") .. "] " or "") .. line
end

local function status_word(ack) return ack == 0 and "good" or ack == no_answer and "no answer" or "refused" end

----------------------------------------------------------------------------------------------------------------------
-- Frames

local function file_frame(pinfo, tvb, v, is_reply)
    local kind = v.code == read and "read" or "write"
    local key = key_of(kind, v.addr, v.seq)
    if is_reply then
        if v.code == plain_write or codes[v.code] == nil or v.ack == no_answer then return end
        local useless = kind == "read" and (v.len == 0 or v.len > frame_data_max)
        file_answer(key, pinfo.number, pinfo.rel_ts, v.ack == 0 and not useless, function() return true end)
    elseif v.code == read or v.code == ack_write then
        file_request(key, pinfo.number, pinfo.rel_ts, tvb:raw(), { card = v.card })
    end
end

-- What is wrong with the values of a frame that arrived whole.
local function judge(tree, v, is_reply, notes)
    local known = codes[v.code] and (is_reply and v.code ~= plain_write or not is_reply and v.code ~= ack_short)
    if not known then
        complain(tree, e.code, string.format("code 0x%02x is no %s's", v.code, is_reply and "answer" or "request"), notes)
    end
    if v.len > frame_data_max then complain(tree, e.len, "len above 1400", notes) end
    if not is_reply then return end
    if v.ack == no_answer then
        complain(tree, e.empty, "status 255 says nothing", notes)
    elseif v.ack ~= 0 then
        tree:add_proto_expert_info(e.refused, "Refused by the card, status " .. v.ack)
    elseif v.code == read and v.len == 0 then
        complain(tree, e.empty, "no data", notes)
    end
end

-- Payload, what is between it and the checksum, and the checksum. Result: the frame is one that is taken.
local function dissect_rest(tree, tvb, v, at, is_reply, notes)
    local whole, data = tvb:reported_len(), v.len
    local area = data
    if not is_reply then
        if v.code == read then data = 0 end
        area = math.max(data, frame_data_min)
    end
    local fits = at.payload + area + checksum_bytes <= whole
    local sum_at = is_reply and fits and whole - checksum_bytes or at.payload + area
    local data_end = math.min(at.payload + data, fits and sum_at or math.max(whole - checksum_bytes, at.payload))
    add_bytes(tree, tvb, f.payload, at.payload, data_end)
    if not fits then
        complain(tree, e.len, string.format("len %d needs a frame of %d bytes, this has %d", v.len,
            at.payload + area + checksum_bytes, whole), notes)
        return false
    end
    add_bytes(tree, tvb, f.padding, data_end, sum_at)
    local summed_to = at.payload + area
    if tvb:len() < summed_to then return true end
    local should_be = (sum(tvb, 16, summed_to) + checksum_start) % 65536
    local good = check(tree, tvb, sum_at, should_be, notes)
    local behind = whole - at.payload - area - checksum_bytes
    if behind > 0 and (not is_reply or not good and tvb(summed_to, checksum_bytes):le_uint() == should_be) then
        complain(tree, e.len, behind .. " bytes behind the checksum", notes)
    end
    return good
end

local function read_values(tree, tvb, at)
    local v = {}
    for name, bytes in pairs({ ack = 1, model = 2, slot = 1, seq = 2, code = 1, addr = 4, len = 2 }) do
        if at[name] then v[name] = tvb(at[name], bytes):le_uint() end
    end
    v.card = string.format("slot %d, model 0x%x", v.slot, v.model)
    v.register = register_of(v.addr, v.model, v.slot)
    if at.ack then tree:add(f.ack, tvb(at.ack, 1)) end
    tree:add_le(f.model, tvb(at.model, 2))
    tree:add(f.slot, tvb(at.slot, 1))
    tree:add_le(f.seq, tvb(at.seq, 2))
    tree:add(f.code, tvb(at.code, 1))
    local addr = tree:add_le(f.addr, tvb(at.addr, 4))
    if v.register then
        addr:append_text(" (" .. v.register .. ")")
        tree:add(f.register, tvb(at.addr, 4), v.register):set_generated()
    end
    tree:add_le(f.len, tvb(at.len, 2))
    return v
end

local function frame_line(tvb, v, at, is_reply)
    local what = codes[v.code] or string.format("code 0x%02x", v.code)
    if is_reply then what = v.code == read and "read answer" or (v.code >= ack_short) and "acknowledgement" or what end
    local line = string.format("%s 0x%08x%s", what, v.addr, v.register and " (" .. v.register .. ")" or "")
    if is_reply then line = string.format("%s ack=%d (%s)", line, v.ack, status_word(v.ack)) end
    if v.len > 0 or v.code == read then line = string.format("%s len=%d", line, v.len) end
    line = string.format("%s slot=%d model=0x%x seq=%d", line, v.slot, v.model, v.seq)
    local shown = math.min(v.len, 8, math.max(tvb:len() - at.payload - checksum_bytes, 0))
    if shown == 0 or (v.code == read and not is_reply) then return line end
    return line .. ": " .. tvb(at.payload, shown):bytes():tohex(true, " ") .. (v.len > shown and " …" or "")
end

local function dissect_frame(tvb, pinfo, root, is_reply)
    local at, notes = is_reply and reply or request, {}
    local tree = root:add(rvk, tvb(), is_reply and "Reply of a card" or "Request to the cards")
    tree:add(f.destination, tvb(0, 6))
    tree:add(f.source, tvb(6, 6))
    pinfo.cols.protocol = "RVK"
    if is_too_short(tree, tvb, pinfo, at.payload, notes) then
        pinfo.cols.info = line_with(notes, is_reply and "reply" or "request")
        return
    end
    local type = tree:add(f.type, tvb(12, 2))
    if not is_reply and tvb(12, 2):uint() ~= 0x0700 then complain(type, e.sync, "type is not 0x0700", notes) end
    local sync = tree:add(f.sync, tvb(14, 2))
    local v = read_values(tree, tvb, at)
    local good = dissect_rest(tree, tvb, v, at, is_reply, notes)
    if tvb(14, 2):uint() ~= (is_reply and 0xAA55 or 0x55AA) then
        complain(sync, e.sync, "wrong sync bytes", notes)
        good = false
    end
    judge(tree, v, is_reply, notes)
    if good and not pinfo.visited then file_frame(pinfo, tvb, v, is_reply) end
    if is_reply then show_answer(tree, pinfo, v.card, notes) else show_request(tree, pinfo, notes) end
    local line = frame_line(tvb, v, at, is_reply)
    tree:append_text(": " .. line)
    pinfo.cols.info = line_with(notes, line)
end

----------------------------------------------------------------------------------------------------------------------
-- Bus blocks

local function file_packet(pinfo, tvb, v)
    local bus_read, bus_write = key_of("bus read", v.addr), key_of("bus write", v.addr)
    local function asked_for(r) return r.what.data_len == v.data_len end
    local function any() return true end
    if v.type == 0 then
        file_request(bus_write, pinfo.number, pinfo.rel_ts, "", { silent = true })
    elseif v.type == 1 then
        file_request(bus_read, pinfo.number, pinfo.rel_ts, tvb:raw(), { data_len = v.data_len })
    elseif v.type == 2 then
        file_answer(bus_read, pinfo.number, pinfo.rel_ts, true, asked_for)
    elseif not file_answer(bus_read, pinfo.number, pinfo.rel_ts, v.ack == 0, any) then
        file_answer(bus_write, pinfo.number, pinfo.rel_ts, v.ack == 0, any)
    end
end

-- The data area and the checksum behind it. Result: the packet is one that is taken.
local function dissect_area(tree, tvb, v, notes)
    local whole = tvb:reported_len()
    local says = v.type == 3 and bus_short_packet or v.length
    local fits = says >= bus_overhead and says <= whole
    local area_end = (fits and says or math.max(whole, bus_overhead)) - checksum_bytes
    local data = v.type == 1 and 0 or v.type == 3 and 1 or math.min(v.data_len, area_end - bus.data)
    add_bytes(tree, tvb, v.type == 3 and f.bus_ack or f.bus_data, bus.data, bus.data + data)
    add_bytes(tree, tvb, f.padding, bus.data + data, area_end)
    if not fits then
        complain(tree, e.len, string.format("length %d, the frame has %d", says, whole), notes)
        return false
    end
    if v.type ~= 1 and v.type ~= 3 and v.data_len > area_end - bus.data then
        complain(tree, e.len, string.format("data_len %d, the area has %d", v.data_len, area_end - bus.data), notes)
        return false
    end
    if whole > says then complain(tree, e.len, whole - says .. " bytes behind the checksum", notes) end
    if tvb:len() < area_end then return true end
    local summed_to = v.type < 2 and math.min(bus.data + v.data_len, area_end) or area_end
    return check(tree, tvb, area_end, sum(tvb, bus.length, summed_to), notes)
end

local function dissect_packet(tvb, pinfo, root)
    local notes, v = {}, {}
    local tree = root:add(rvk, tvb(), "Bus block")
    tree:add(f.destination, tvb(0, 6))
    pinfo.cols.protocol = "RVK bus"
    if is_too_short(tree, tvb, pinfo, bus_overhead, notes) then
        pinfo.cols.info = line_with(notes, "bus packet")
        return
    end
    for name, bytes in pairs({ length = 4, type = 1, addr = 4, data_len = 4 }) do
        v[name] = tvb(bus[name], bytes):le_uint()
    end
    v.ack = tvb(bus.data, 1):uint()
    tree:add_le(f.bus_length, tvb(bus.length, 4))
    tree:add(f.bus_rsv0, tvb(bus.rsv0, 1))
    tree:add(f.bus_type, tvb(bus.type, 1))
    tree:add(f.bus_ethertype, tvb(bus.ethertype, 2))
    tree:add(f.bus_rsv1, tvb(bus.rsv1, 2))
    tree:add_le(f.bus_addr, tvb(bus.addr, 4))
    tree:add_le(f.bus_data_len, tvb(bus.data_len, 4))
    local good = dissect_area(tree, tvb, v, notes)
    if bus_types[v.type] == nil then complain(tree, e.code, "type " .. v.type .. " is none", notes) end
    if v.type == 3 and v.ack ~= 0 then tree:add_proto_expert_info(e.refused, "Refused by the card, status " .. v.ack) end
    if good and bus_types[v.type] and not pinfo.visited then file_packet(pinfo, tvb, v) end
    if v.type < 2 then show_request(tree, pinfo, notes) else show_answer(tree, pinfo, nil, notes) end
    local line = string.format("bus %s 0x%08x data_len=%d", bus_types[v.type] or "type " .. v.type, v.addr, v.data_len)
    if v.type == 3 then line = string.format("%s ack=%d (%s)", line, v.ack, v.ack == 0 and "good" or "refused") end
    tree:append_text(": " .. line)
    pinfo.cols.info = line_with(notes, line)
end

-- A packet's source is its length and its type. Cards need not repeat type field and reserved bytes in an answer, so
-- one without them is an answer when its length can be one: no maker of interfaces has such an address.
local function is_bus_packet(tvb, to_cards)
    if tvb:len() < 16 then return false end
    local kind, length = tvb(bus.type, 1):uint(), tvb(bus.length, 4):le_uint()
    if to_cards then return tvb(12, 4):uint() == 0x07000000 end
    return tvb(12, 2):uint() == 0x0700 or kind >= 2 and kind <= 3 and length >= bus_overhead and length <= 8046
end

-- Asked for every Ethernet frame before Wireshark looks at its type field, which it would take for a length otherwise.
local function dissect(tvb, pinfo, root)
    if tvb:len() < 12 then return false end
    local to, from = tostring(tvb(0, 6):ether()), tostring(tvb(6, 6):ether())
    local to_cards = to == cards
    if not to_cards and to ~= controller then return false end
    local is_frame = from == (to_cards and controller or cards)
    if not is_frame and not is_bus_packet(tvb, to_cards) then return false end
    if not is_frame then pinfo.src = Address.ether(to_cards and controller or cards) end
    if is_frame then dissect_frame(tvb, pinfo, root, not to_cards) else dissect_packet(tvb, pinfo, root) end
    return true
end

rvk:register_heuristic("eth", dissect)
