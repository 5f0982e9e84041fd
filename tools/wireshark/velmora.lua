-- Wireshark dissector for the Velmora controller protocol on TCP port 60000.
--
--   wireshark -X lua_script:tools/wireshark/velmora.lua capture.pcap
--   tshark -X lua_script:tools/wireshark/velmora.lua -r capture.pcap -Y velmora
-- or copy the file into Wireshark's personal plugins folder.
--
-- Frame: 00 00 00 00, length (2 bytes, little-endian, = frame size - 6),
-- unit 00, then the command letter, a sub-code or count, and the payload.
-- Every multi-byte field is little-endian. An error reply carries the
-- request's letter with its top bit set. The header has no transaction
-- number: a reply is paired with the oldest unanswered request of the same
-- letter on its connection (for a read, also the same count), which is how
-- the library matches them too.

local PORT = 60000

local p = Proto("velmora", "Velmora CNC protocol")

local letters = {
    [0x42] = "Read variables", [0x44] = "Write variables", [0x64] = "File transfer",
    [0x63] = "Controller file", [0x66] = "Program control", [0x67] = "Query",
    [0x69] = "Oscilloscope", [0x70] = "Watchdog",
}
local subs = {
    [0x64] = { [1] = "set file", [2] = "append text", [3] = "overwrite text", [4] = "end of file",
               [5] = "send next", [6] = "transfer state" },
    [0x63] = { [1] = "open", [2] = "read piece", [3] = "close" },
    [0x66] = { [3] = "reset", [4] = "cycle start", [5] = "parameter" },
    [0x67] = { [1] = "selector 0", [2] = "selector 1", [3] = "selector 2", [4] = "selector 3",
               [5] = "running program", [0x90] = "selector 5", [0xF0] = "selector 5" },
    [0x69] = { [1] = "axes", [2] = "transfer enable", [3] = "points" },
}
-- Reply states, by letter and sub-code.
local states = {
    [0x64] = {
        [1] = { [0] = "ok", [1] = "parameters error", [2] = "file denied: it is executing", [100] = "alarm" },
        [6] = { [0] = "ok", [1] = "parameters error", [2] = "file denied: it is executing", [100] = "alarm" },
        [2] = { [0] = "ok", [1] = "parameters error", [2] = "DNC memory full, written",
                [3] = "DNC memory full, refused", [100] = "alarm" },
        [3] = { [0] = "ok", [1] = "parameters error", [2] = "DNC memory full, written",
                [3] = "DNC memory full, refused", [100] = "alarm" },
        [4] = { [0] = "ok", [1] = "parameters error" },
        [5] = { [0] = "send next", [1] = "busy", [2] = "busy" },
    },
    [0x63] = { [1] = { [0] = "cannot open", [1] = "opened" }, [3] = { [0] = "cannot close", [1] = "closed" } },
    [0x66] = {
        [3] = { [0] = "ok", [1] = "parameters error", [2] = "program is running" },
        [4] = { [0] = "started", [1] = "parameters error", [2] = "program is running", [3] = "file does not exist" },
    },
    [0x69] = { [1] = { [1] = "ok" }, [2] = { [1] = "ok" }, [3] = { [1] = "ok" } },
}
local filetypes = { [1] = "type 1", [3] = "type 2", [4] = "type 3", [5] = "type 0" }
local areas = { { 0, "usr" }, { 10000, "sys" }, { 40000, "reg" }, { 50000, "mcm" }, { 60000, "bus" }, { 70000, "com" } }

local f = {
    length = ProtoField.uint16("velmora.length", "Length", base.DEC),
    unit = ProtoField.uint8("velmora.unit", "Unit", base.HEX),
    letter = ProtoField.uint8("velmora.letter", "Command", base.HEX),
    command = ProtoField.string("velmora.command", "Command name"),
    error = ProtoField.bool("velmora.error", "Error reply"),
    response = ProtoField.bool("velmora.response", "Reply"),
    sub = ProtoField.uint8("velmora.sub", "Sub-code", base.DEC),
    count = ProtoField.uint8("velmora.count", "Count", base.DEC),
    address = ProtoField.int32("velmora.address", "Address", base.DEC),
    area = ProtoField.string("velmora.area", "Address text"),
    value = ProtoField.int32("velmora.value", "Value", base.DEC),
    channel = ProtoField.uint8("velmora.channel", "Channel", base.DEC),
    filetype = ProtoField.uint8("velmora.filetype", "File type", base.DEC, filetypes),
    filename = ProtoField.string("velmora.filename", "File name"),
    text = ProtoField.string("velmora.text", "Text"),
    textlen = ProtoField.uint32("velmora.text_length", "Text length", base.DEC),
    piece = ProtoField.bytes("velmora.piece", "File piece"),
    state = ProtoField.int8("velmora.state", "State", base.DEC),
    statetext = ProtoField.string("velmora.state_text", "State meaning"),
    param = ProtoField.uint8("velmora.param", "Parameter", base.DEC),
    request_in = ProtoField.framenum("velmora.request_in", "Request in", base.NONE,
                                     frametype and frametype.REQUEST or nil),
    response_in = ProtoField.framenum("velmora.response_in", "Reply in", base.NONE,
                                      frametype and frametype.RESPONSE or nil),
    time = ProtoField.relative_time("velmora.time", "Reply time"),
    unanswered = ProtoField.bool("velmora.unanswered", "No matching request"),
}
p.fields = f

local e_error = ProtoExpert.new("velmora.error_reply", "Error reply", expert.group.RESPONSE_CODE, expert.severity.WARN)
local e_state = ProtoExpert.new("velmora.bad_state", "Reply reports a failure", expert.group.RESPONSE_CODE, expert.severity.NOTE)
local e_unpaired = ProtoExpert.new("velmora.unpaired", "Reply matches no outstanding request", expert.group.SEQUENCE, expert.severity.WARN)
local e_short = ProtoExpert.new("velmora.short", "Payload shorter than its command needs", expert.group.MALFORMED, expert.severity.ERROR)
p.experts = { e_error, e_state, e_unpaired, e_short }

local f_stream = Field.new("tcp.stream")

-- Pairing, built on the first pass: per connection the unanswered requests in
-- order; per PDU (frame number and position in the frame) what it paired with.
local pending = {}
local pdus = {}
local cur_frame, cur_index = -1, 0

local function addr_text(a)
    if a < 0 or a > 9999999 or a % 1000000 > 169999 then return "invalid address" end
    local ch, n = math.floor(a / 1000000), a % 1000000
    local name, base = "usr", 0
    for _, area in ipairs(areas) do
        if n >= area[1] then base, name = area[1], area[2] end
    end
    return string.format("ch %d %s%d", ch, name, n - base)
end

local function cstring(tvb, at)
    if at >= tvb:len() then return "", 0, 0 end
    local len = tvb:len() - at
    for i = at, tvb:len() - 1 do
        if tvb(i, 1):uint() == 0 then len = i - at; break end
    end
    local s = len > 0 and tvb(at, len):string() or ""
    return s, len, math.min(len + 1, tvb:len() - at)
end

local function add_text(tree, field, tvb, at)
    local s, len, span = cstring(tvb, at)
    if span > 0 then
        tree:add(field, tvb(at, span), s)
    else
        tree:add(field, s)
    end
    tree:add(f.textlen, len)
    return s, len
end

local function add_state(tree, tvb, at, letter, sub)
    if at >= tvb:len() then return nil end
    local st = tvb(at, 1):int()
    tree:add(f.state, tvb(at, 1))
    local names = states[letter] and states[letter][sub]
    local meaning = names and names[st] or "unknown state"
    tree:add(f.statetext, meaning)
    local good = (letter == 0x63 or letter == 0x69) and st == 1 or st == 0
    if letter == 0x64 and sub == 5 then good = true end
    if not good then tree:add_proto_expert_info(e_state, meaning) end
    return st, meaning
end

local function add_addresses(tree, tvb, at, n, with_values, info)
    local shown = {}
    for i = 0, n - 1 do
        local o = at + i * (with_values and 8 or 4)
        if o + 4 > tvb:len() then tree:add_proto_expert_info(e_short); break end
        local a = tvb(o, 4):le_int()
        local item = tree:add_le(f.address, tvb(o, 4))
        item:append_text(" (" .. addr_text(a) .. ")")
        tree:add(f.area, addr_text(a))
        local txt = tostring(a)
        if with_values and o + 8 <= tvb:len() then
            tree:add_le(f.value, tvb(o + 4, 4))
            txt = txt .. "=" .. tvb(o + 4, 4):le_int()
        end
        if i < 8 then shown[#shown + 1] = txt end
    end
    if n > 8 then shown[#shown + 1] = "..." end
    info[#info + 1] = table.concat(shown, " ")
end

local function add_values(tree, tvb, at, n, req, info)
    local shown = {}
    for i = 0, n - 1 do
        local o = at + i * 4
        if o + 4 > tvb:len() then tree:add_proto_expert_info(e_short); break end
        local v = tvb(o, 4):le_int()
        local item = tree:add_le(f.value, tvb(o, 4))
        local a = req and req.addresses and req.addresses[i + 1]
        if a then item:append_text(" (address " .. a .. ", " .. addr_text(a) .. ")") end
        if i < 8 then shown[#shown + 1] = (a and (a .. "=") or "") .. v end
    end
    if n > 8 then shown[#shown + 1] = "..." end
    info[#info + 1] = table.concat(shown, " ")
end

-- The request's own fields; returns what pairing needs to remember.
local function dissect_request(tvb, tree, letter, info)
    local req = { letter = letter }
    local pl = tvb:len()
    if letter == 0x70 or pl < 2 then return req end
    local sub = tvb(1, 1):uint()
    req.sub = sub
    if letter == 0x42 then
        tree:add(f.count, tvb(1, 1))
        req.count = sub
        req.addresses = {}
        for i = 0, sub - 1 do
            if 2 + i * 4 + 4 <= pl then req.addresses[#req.addresses + 1] = tvb(2 + i * 4, 4):le_int() end
        end
        add_addresses(tree, tvb, 2, sub, false, info)
    elseif letter == 0x44 then
        tree:add(f.count, tvb(1, 1))
        add_addresses(tree, tvb, 2, sub, true, info)
    else
        tree:add(f.sub, tvb(1, 1))
        if letter == 0x64 and (sub == 1 or sub == 6) then
            if pl >= 4 then
                tree:add(f.channel, tvb(2, 1))
                tree:add(f.filetype, tvb(3, 1))
                local name = add_text(tree, f.filename, tvb, 4)
                info[#info + 1] = "ch " .. tvb(2, 1):uint() .. " \"" .. name .. "\""
            else
                tree:add_proto_expert_info(e_short)
            end
        elseif letter == 0x64 and (sub == 2 or sub == 3) then
            local _, len = add_text(tree, f.text, tvb, 2)
            info[#info + 1] = len .. " bytes"
        elseif letter == 0x63 and sub == 1 then
            info[#info + 1] = "\"" .. add_text(tree, f.filename, tvb, 2) .. "\""
        elseif letter == 0x66 and (sub == 3 or sub == 4) then
            if pl >= 3 then
                tree:add(f.channel, tvb(2, 1))
                local s = "ch " .. tvb(2, 1):uint()
                if sub == 4 then s = s .. " \"" .. add_text(tree, f.filename, tvb, 3) .. "\"" end
                info[#info + 1] = s
            else
                tree:add_proto_expert_info(e_short)
            end
        elseif letter == 0x66 and sub == 5 and pl >= 3 then
            tree:add(f.param, tvb(2, 1))
        elseif letter == 0x67 then
            info[#info + 1] = "\"" .. add_text(tree, f.filename, tvb, 2) .. "\""
        elseif letter == 0x69 then
            for o = 2, pl - 4, 4 do tree:add_le(f.value, tvb(o, 4)) end
        end
    end
    return req
end

local function dissect_reply(tvb, tree, letter, req, info)
    local pl = tvb:len()
    if pl < 2 then return end
    local sub = tvb(1, 1):uint()
    if letter == 0x70 then
        tree:add(f.state, tvb(1, 1))
        info[#info + 1] = "state " .. tvb(1, 1):int()
        return
    end
    if letter == 0x42 then
        tree:add(f.count, tvb(1, 1))
        add_values(tree, tvb, 2, sub, req, info)
        return
    end
    if letter == 0x44 then
        tree:add(f.count, tvb(1, 1))
        return
    end
    tree:add(f.sub, tvb(1, 1))
    local st, meaning
    if letter == 0x64 then
        if sub == 1 or sub == 6 then
            if pl >= 4 then tree:add(f.channel, tvb(2, 1)); tree:add(f.filetype, tvb(3, 1)) end
            st, meaning = add_state(tree, tvb, 4, letter, sub)
        else
            st, meaning = add_state(tree, tvb, 2, letter, sub)
        end
    elseif letter == 0x63 and sub == 2 then
        if pl >= 3 then
            local n = tvb(2, 1):int()
            tree:add(f.count, tvb(2, 1))
            -- A piece counts only when the reply is n + 10 bytes long; a
            -- shorter one is how the controller says the file ended.
            if n > 0 and pl + 7 == n + 10 and 3 + n <= pl then
                tree:add(f.piece, tvb(3, n))
                tree:add(f.text, tvb(3, n):string())
                info[#info + 1] = n .. " bytes"
            else
                info[#info + 1] = "end of file"
            end
        end
    elseif letter == 0x63 then
        st, meaning = add_state(tree, tvb, 2, letter, sub)
    elseif letter == 0x66 and (sub == 3 or sub == 4) then
        if pl >= 3 then tree:add(f.channel, tvb(2, 1)) end
        st, meaning = add_state(tree, tvb, 3, letter, sub)
    elseif letter == 0x67 then
        info[#info + 1] = "\"" .. add_text(tree, f.text, tvb, 2) .. "\""
    elseif letter == 0x69 then
        st, meaning = add_state(tree, tvb, 2, letter, sub)
        if sub == 3 and pl >= 4 then
            tree:add(f.count, tvb(3, 1))
            add_values(tree, tvb, 4, tvb(3, 1):uint(), nil, info)
        end
    end
    if st then info[#info + 1] = "state " .. st .. " (" .. meaning .. ")" end
end

local function pair(pinfo, is_reply, letter, count, req)
    if pinfo.number ~= cur_frame then cur_frame, cur_index = pinfo.number, 0 end
    cur_index = cur_index + 1
    local key = pinfo.number * 64 + cur_index
    if not pinfo.visited then
        local stream = tostring(f_stream() and f_stream().value or 0)
        pending[stream] = pending[stream] or {}
        local q = pending[stream]
        local me = { frame = pinfo.number, time = pinfo.abs_ts, req = req }
        if not is_reply then
            q[#q + 1] = me
        else
            for i, r in ipairs(q) do
                if r.req.letter == letter and (letter ~= 0x42 or r.req.count == count) then
                    table.remove(q, i)
                    me.partner = r
                    r.partner = me
                    me.req = r.req
                    break
                end
            end
        end
        pdus[key] = me
    end
    return pdus[key]
end

local function dissect_pdu(tvb, pinfo, root)
    local is_reply = pinfo.src_port == PORT
    local raw = tvb(7, 1):uint()
    local letter = raw
    local err = false
    if raw >= 0x80 then
        letter = raw - 0x80
        err = letters[letter] ~= nil
    end
    if not err then letter = raw end
    local name = letters[letter] or string.format("Unknown command 0x%02x", raw)
    local pdu = tvb(7):tvb()
    local sub = pdu:len() > 1 and pdu(1, 1):uint() or nil
    local subname = subs[letter] and sub and subs[letter][sub]
    local title = name .. (subname and (" " .. subname) or "") .. (is_reply and (err and " error reply" or " reply") or " request")

    local tree = root:add(p, tvb(), "Velmora " .. title)
    tree:add(f.unit, tvb(6, 1))
    tree:add_le(f.length, tvb(4, 2))
    tree:add(f.letter, tvb(7, 1)):append_text(" '" .. string.char(letter >= 0x20 and letter < 0x7f and letter or 0x3f) .. "'")
    tree:add(f.command, title)
    tree:add(f.response, is_reply)
    tree:add(f.error, err)

    local info = {}
    local req = nil
    if not is_reply then
        req = dissect_request(pdu, tree, letter, info)
    end
    local me = pair(pinfo, is_reply, letter, sub, req)
    if is_reply then
        if err then
            if sub then tree:add(f.sub, pdu(1, 1)) end
            tree:add_proto_expert_info(e_error)
        else
            dissect_reply(pdu, tree, letter, me and me.req, info)
        end
    end
    if me and me.partner then
        if is_reply then
            tree:add(f.request_in, me.partner.frame)
            local d = me.time - me.partner.time
            local secs = math.floor(d)
            tree:add(f.time, NSTime.new(secs, math.floor((d - secs) * 1e9)))
        else
            tree:add(f.response_in, me.partner.frame)
        end
    elseif is_reply then
        tree:add(f.unanswered, true)
        tree:add_proto_expert_info(e_unpaired)
    end

    local col = title
    if #info > 0 then col = col .. ": " .. table.concat(info, ", ") end
    return col
end

local function pdu_length(tvb, pinfo, offset)
    return tvb(offset + 4, 2):le_uint() + 6
end

local function dissect_one(tvb, pinfo, root)
    if tvb:len() < 8 then return 0 end
    local col = dissect_pdu(tvb, pinfo, root)
    local prev = tostring(pinfo.cols.info)
    if pinfo.private.velmora_seen == "1" then
        pinfo.cols.info:set(prev .. "; " .. col)
    else
        pinfo.cols.info:set(col)
        pinfo.private.velmora_seen = "1"
    end
    return tvb:len()
end

function p.dissector(tvb, pinfo, root)
    pinfo.cols.protocol = "VELMORA"
    -- Bytes that cannot start a frame (no zero prefix) are shown as they are:
    -- the stream cannot be followed past them.
    if tvb:len() >= 4 and tvb(0, 4):uint() ~= 0 then
        root:add(p, tvb(), "Velmora: bytes that are no frame")
        pinfo.cols.info:set("Bytes that are no frame (" .. tvb:len() .. ")")
        return tvb:len()
    end
    dissect_tcp_pdus(tvb, root, 6, pdu_length, dissect_one, true)
    return tvb:len()
end

function p.init()
    pending = {}
    pdus = {}
    cur_frame, cur_index = -1, 0
end

DissectorTable.get("tcp.port"):add(PORT, p)
