-- Wireshark dissector of the captures of `mgictl monitor -w FILE.pcapng`:
--
--   tshark -X lua_script:tools/wireshark/mgi.lua -r FILE.pcapng -V
--
-- Each packet is a copy as the monitor got it (link type USER0): the monitor's
-- head (time, sender's pid, destination, result of the send), the platform's
-- frame (message number, kind, sequence, status, source) and the payload.
-- Message 6 is MGI: the 312-byte header, big-endian, and its segment chain;
-- the error body, the transaction record and the manager's other service
-- records are in the sender's byte order, as the heads are.
--
-- The offsets and numbers below are those of include/mgmt/mgi.h,
-- include/mgmt/mgi_services.h, include/mgmt/device.h and
-- include/platform/platform.h.

local monitor = Proto("mgimon", "libmgmt monitor copy")
local mgi = Proto("mgi", "MGI message")
local mgd = Proto("mgd", "MGD service record")
local trap = Proto("mgitrap", "Trap record")

local MONITOR_MAGIC = 0x4d47494d
local MONITOR_HEAD = 32
local FRAME = 32
local MGI_HDR = 312

local kinds = {[1] = "request", [2] = "reply", [3] = "one-way"}
local messages = {
    [6] = "MGI", [0] = "manager: configuration request", [10] = "manager: debug configuration",
    [48] = "manager: configuration change status", [249] = "manager: configuration lock",
    [257] = "manager: system debug state", [336] = "manager: object default value",
    [354] = "manager: configuration lock status", [371] = "manager: transaction",
    [577] = "manager: pre-configured feature", [580] = "manager: transaction state",
    [602] = "manager: platform word", [61] = "manager: configuration import", [611] = "manager: session cut",
    [836] = "manager: network manager time-out", [64] = "trap", [101] = "manager trap (published)",
    [324] = "publish news", [365] = "firmware image", [461] = "heartbeat", [880] = "availability status",
}
local mgi_types = {
    [15] = "final", [16] = "partial", [18] = "error", [22] = "close", [27] = "final",
    [30] = "get from mgd", [31] = "match get",
}
local seg_types = {
    [129] = "none", [130] = "ui info", [131] = "condition", [132] = "cookie", [133] = "rule data",
    [134] = "udc data", [135] = "error", [136] = "none", [137] = "answer data", [138] = "query data",
    [139] = "end", [140] = "answer data",
}
local trans_ops = {[1] = "state", [2] = "lock or unlock", [3] = "rollback"}

local hf = {}
local function field(proto_fields, kind, abbr, name, ...)
    local f = ProtoField[kind](abbr, name, ...)
    hf[abbr] = f
    table.insert(proto_fields, f)
    return f
end

local monitor_fields = {}
-- The monitor's head and the frame: offset, width, field, kind, name (the message number is big-endian).
local copy_head = {
    {4, 4, "result", "int32", "Send result"}, {8, 8, "time_ns", "uint64", "Time (ns since the epoch)"},
    {16, 4, "pid", "int32", "Sender pid"}, {20, 2, "dst_slot", "uint16", "Destination slot"},
    {22, 2, "dst_app", "uint16", "Destination application"}, {24, 2, "dst_inst", "uint16", "Destination instance"},
    {36, 2, "msg", "uint16", "Message number", messages, true}, {38, 1, "kind", "uint8", "Kind", kinds},
    {40, 4, "seq", "uint32", "Sequence"}, {44, 4, "status", "int32", "Status"},
    {48, 2, "src_slot", "uint16", "Source slot"}, {50, 2, "src_app", "uint16", "Source application"},
    {52, 2, "src_inst", "uint16", "Source instance"}, {56, 4, "len", "uint32", "Payload length"},
}
for _, h in ipairs(copy_head) do
    if h[6] then
        field(monitor_fields, h[4], "mgimon." .. h[3], h[5], base.DEC, h[6])
    else
        field(monitor_fields, h[4], "mgimon." .. h[3], h[5])
    end
end
monitor.fields = monitor_fields

local mgi_fields = {}
-- The header: offset, width, field, how it is shown.
local header = {
    {0, 1, "mark", "uint8"}, {1, 1, "src", "uint8"}, {3, 1, "transaction_id", "uint8"},
    {4, 1, "timeout", "uint8"}, {5, 1, "language", "uint8"}, {6, 2, "vsysid", "uint16"},
    {8, 32, "user", "stringz"}, {40, 4, "user_priv", "uint32"}, {44, 2, "login_vsysid", "uint16"},
    {46, 2, "dst_vsysid", "uint16"}, {48, 40, "ip_addr", "stringz"}, {128, 1, "nextseg", "uint8"},
    {129, 1, "type", "uint8"}, {130, 2, "len", "uint16"}, {132, 4, "offset", "uint32"},
    {136, 4, "rsp_aux", "uint32"}, {140, 2, "rqt_aux", "uint16"}, {144, 4, "mgi_flag", "uint32"},
    {148, 4, "sublevel", "uint32"}, {152, 4, "mask1", "uint32"}, {156, 4, "mask2", "uint32"},
    {160, 4, "mask3", "uint32"}, {164, 4, "attr_brief", "uint32"}, {168, 4, "mask4", "uint32"},
    {172, 4, "mask5", "uint32"}, {176, 4, "mask6", "uint32"}, {216, 4, "revision", "uint32"},
    {220, 4, "descend", "uint32"}, {240, 33, "fernlook_taskid", "stringz"},
    {273, 33, "fernlook_type", "stringz"}, {308, 4, "rsp_data_type", "uint32"},
}
for _, h in ipairs(header) do
    local extra = h[3] == "type" and mgi_types or (h[3] == "nextseg" and seg_types or nil)
    if h[4] == "stringz" then
        field(mgi_fields, "stringz", "mgi." .. h[3], h[3])
    elseif extra then
        field(mgi_fields, h[4], "mgi." .. h[3], h[3], base.DEC, extra)
    else
        field(mgi_fields, h[4], "mgi." .. h[3], h[3], base.DEC)
    end
end
field(mgi_fields, "uint32", "mgi.target", "Target word", base.HEX)
field(mgi_fields, "uint32", "mgi.xmask", "Extra mask word", base.HEX)
field(mgi_fields, "bytes", "mgi.record", "Record")
field(mgi_fields, "uint8", "mgi.seg.next", "Next segment", base.DEC, seg_types)
field(mgi_fields, "uint8", "mgi.seg.type", "Segment type", base.DEC, seg_types)
field(mgi_fields, "uint16", "mgi.seg.len", "Segment length")
field(mgi_fields, "uint32", "mgi.seg.subtype", "Segment subtype")
field(mgi_fields, "bytes", "mgi.seg.body", "Segment body")
field(mgi_fields, "int32", "mgi.err.code", "Error code")
field(mgi_fields, "int32", "mgi.err.private", "Private error code")
field(mgi_fields, "int32", "mgi.err.detail", "Error detail")
field(mgi_fields, "int32", "mgi.err.status", "Error status")
field(mgi_fields, "stringz", "mgi.err.text", "Error text")
mgi.fields = mgi_fields

local mgd_fields = {}
field(mgd_fields, "uint32", "mgd.trans.op", "Transaction operation", base.DEC, trans_ops)
field(mgd_fields, "uint32", "mgd.trans.lock", "Take (1) or release (0)")
field(mgd_fields, "uint8", "mgd.trans.id", "Transaction id")
field(mgd_fields, "uint8", "mgd.trans.src", "Source of request")
field(mgd_fields, "stringz", "mgd.trans.user", "User")
field(mgd_fields, "uint16", "mgd.trans.vsysid", "Virtual system")
field(mgd_fields, "uint32", "mgd.lock", "Lock (non-zero) or unlock")
field(mgd_fields, "uint16", "mgd.lock_status", "Locked word")
field(mgd_fields, "uint16", "mgd.selector", "Selector")
field(mgd_fields, "uint32", "mgd.word", "Word")
field(mgd_fields, "uint16", "mgd.config.id", "Requester id")
field(mgd_fields, "uint16", "mgd.config.seq", "Sequence")
field(mgd_fields, "stringz", "mgd.text", "Text")
mgd.fields = mgd_fields

local trap_fields = {}
field(trap_fields, "uint32", "mgitrap.kind", "Trap kind")
field(trap_fields, "uint32", "mgitrap.code", "Trap code")
field(trap_fields, "uint32", "mgitrap.arg", "Trap argument")
field(trap_fields, "stringz", "mgitrap.text", "Payload text")
trap.fields = trap_fields

-- Adds a number in the sender's byte order (le) or big-endian.
local function add(tree, le, f, range)
    if le then return tree:add_le(f, range) end
    return tree:add(f, range)
end

local function dissect_mgi(buf, pinfo, tree, le)
    local t = tree:add(mgi, buf(), "MGI message")
    if buf:len() < MGI_HDR then
        t:add_expert_info(PI_MALFORMED, PI_ERROR, "shorter than the 312-byte header")
        return
    end
    local h = t:add(mgi, buf(0, MGI_HDR), "Header")
    for _, f in ipairs(header) do h:add(hf["mgi." .. f[3]], buf(f[1], f[2])) end
    for i = 0, 9 do
        local w = buf(88 + 4 * i, 4)
        if w:uint() == 0 then break end
        h:add(hf["mgi.target"], w)
    end
    for i = 0, 5 do h:add(hf["mgi.xmask"], buf(192 + 4 * i, 4)) end
    for i = 0, 2 do h:add(hf["mgi.xmask"], buf(224 + 4 * i, 4)) end
    local mtype, first, len = buf(129, 1):uint(), buf(128, 1):uint(), buf(130, 2):uint()
    pinfo.cols.info:append(string.format(" type %d (%s)", mtype, mgi_types[mtype] or "request"))
    if first < 128 then
        if len > 0 and buf:len() > MGI_HDR then t:add(hf["mgi.record"], buf(MGI_HDR, math.min(len, buf:len() - MGI_HDR))) end
        return
    end
    -- The chain, as a reader walks it: types 129 to 140 but 139, while the length lasts.
    local at, left, seg = MGI_HDR, len, first
    local chain = t:add(mgi, buf(MGI_HDR), "Segment chain")
    while seg >= 129 and seg <= 140 and seg ~= 139 and left >= 8 and at + 8 <= buf:len() do
        local size = math.min(buf(at + 2, 2):uint(), buf:len() - at - 8)
        local s = chain:add(mgi, buf(at, 8 + size), string.format("Segment %d (%s), %d bytes", seg, seg_types[seg], size))
        s:add(hf["mgi.seg.next"], buf(at, 1))
        s:add(hf["mgi.seg.type"], buf(at + 1, 1))
        s:add(hf["mgi.seg.len"], buf(at + 2, 2))
        s:add(hf["mgi.seg.subtype"], buf(at + 4, 4))
        if size > 0 then s:add(hf["mgi.seg.body"], buf(at + 8, size)) end
        if seg == 135 and size >= 16 then
            local e = s:add(mgi, buf(at + 8, size), "Error body")
            add(e, le, hf["mgi.err.code"], buf(at + 8, 4))
            add(e, le, hf["mgi.err.private"], buf(at + 12, 4))
            add(e, le, hf["mgi.err.detail"], buf(at + 16, 4))
            add(e, le, hf["mgi.err.status"], buf(at + 20, 4))
            if size > 16 then e:add(hf["mgi.err.text"], buf(at + 24, size - 16)) end
        end
        seg = buf(at, 1):uint()
        at = at + 8 + size
        left = left - 8 - size
    end
end

-- The manager's service records: request and reply by message number.
local function dissect_mgd(msg, kind, buf, tree, le)
    local n = buf:len()
    if n == 0 then return end
    local t = tree:add(mgd, buf(), "MGD service record: " .. (messages[msg] or "?"))
    if msg == 371 and n >= 44 then
        add(t, le, hf["mgd.trans.op"], buf(0, 4))
        add(t, le, hf["mgd.trans.lock"], buf(4, 4))
        t:add(hf["mgd.trans.id"], buf(8, 1))
        t:add(hf["mgd.trans.src"], buf(9, 1))
        t:add(hf["mgd.trans.user"], buf(10, 32))
        add(t, le, hf["mgd.trans.vsysid"], buf(42, 2))
    elseif msg == 249 and n >= 8 then
        add(t, le, hf["mgd.lock"], buf(4, 4))
    elseif msg == 354 and kind == 2 and n >= 4 then
        add(t, le, hf["mgd.lock_status"], buf(0, 2))
        add(t, le, hf["mgd.lock_status"], buf(2, 2))
    elseif (msg == 580 or msg == 48) and kind == 1 and n >= 2 then
        add(t, le, hf["mgd.selector"], buf(0, 2))
    elseif msg == 0 and n >= 4 then
        t:add(hf["mgd.config.id"], buf(0, 2))
        t:add(hf["mgd.config.seq"], buf(2, 2))
    elseif msg == 10 and n >= 76 then
        for i = 0, 2 do add(t, le, hf["mgd.word"], buf(4 * i, 4)) end
        t:add(hf["mgd.text"], buf(12, 64))
    elseif n >= 4 then
        add(t, le, hf["mgd.word"], buf(0, 4))
    end
end

function monitor.dissector(buf, pinfo, tree)
    if buf:len() < MONITOR_HEAD + FRAME then return 0 end
    -- The magic tells the byte order of the machine that wrote the copy.
    local le = buf(0, 4):le_uint() == MONITOR_MAGIC
    if not le and buf(0, 4):uint() ~= MONITOR_MAGIC then return 0 end
    pinfo.cols.protocol = "MGIMON"
    local t = tree:add(monitor, buf(0, MONITOR_HEAD + FRAME), "libmgmt monitor copy")
    local function u(off, w) return le and buf(off, w):le_uint() or buf(off, w):uint() end
    for _, h in ipairs(copy_head) do
        if h[7] or h[2] == 1 then
            t:add(hf["mgimon." .. h[3]], buf(h[1], h[2]))
        else
            add(t, le, hf["mgimon." .. h[3]], buf(h[1], h[2]))
        end
    end
    local f = MONITOR_HEAD
    local msg, kind = buf(f + 4, 2):uint(), buf(f + 6, 1):uint()
    local src, dst = u(f + 18, 2), u(22, 2)
    pinfo.cols.src = src == 2 and "mgd" or ("app" .. src)
    pinfo.cols.dst = dst == 2 and "mgd" or ("app" .. dst)
    pinfo.cols.info = string.format("%d %s%s seq %d", msg, messages[msg] or "message",
        kind == 2 and " answer" or "", u(f + 8, 4))
    local result = le and buf(4, 4):le_int() or buf(4, 4):int()
    if result < 0 then pinfo.cols.info:append(string.format(" not delivered (%d)", result)) end
    local payload = buf(MONITOR_HEAD + FRAME):tvb()
    if buf:len() == MONITOR_HEAD + FRAME then return buf:len() end
    if msg == 6 then
        dissect_mgi(payload, pinfo, tree, le)
    elseif msg == 64 and payload:len() >= 12 then
        local r = tree:add(trap, payload(), "Trap record")
        r:add(hf["mgitrap.kind"], payload(0, 4))
        r:add(hf["mgitrap.code"], payload(4, 4))
        r:add(hf["mgitrap.arg"], payload(8, 4))
        if payload:len() > 12 then r:add(hf["mgitrap.text"], payload(12)) end
    elseif messages[msg] and messages[msg]:find("^manager") then
        dissect_mgd(msg, kind, payload, tree, le)
    end
    return buf:len()
end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, monitor)
