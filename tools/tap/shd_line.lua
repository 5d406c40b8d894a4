-- Dissector for captures of the line between shd and the sensor MCU, as `shdtool tap --pcapng`
-- writes them: wireshark -X lua_script:shd_line.lua FILE, or tshark likewise. Frames are those of
-- RFC 1662 (byte stuffing, FCS-16, no opening flag), the bootloader's protocol is AN3155's.

local line = Proto("shd_line", "Sensor hub line")

local kinds = {[0] = "frame", [1] = "damaged frame", [2] = "cut off", [3] = "bootloader",
               [4] = "pin", [5] = "settings"}
local speakers = {[0] = "host", [1] = "MCU"}
local pins = {[0] = "boot0", [1] = "reset"}
local channels = {[0] = "control", [1] = "sensor", [4] = "log", [5] = "raw data", [7] = "core dump"}
local types = {[0] = "request", [1] = "reply", [2] = "report"}
local services = {[12] = "clock", [13] = "log", [15] = "version",
    [16] = "accelerometer", [17] = "gyroscope", [22] = "pressure", [23] = "raw-25",
    [32] = "linear-acceleration", [33] = "gravity", [35] = "rotation-vector",
    [48] = "step-counter", [50] = "heart-rate", [51] = "wrist-tilt", [64] = "motion-health"}
local commands = {[0] = "active", [1] = "deactive", [2] = "set delay", [3] = "batch",
    [4] = "flush", [17] = "self test", [18] = "calibration", [19] = "set parameter",
    [32] = "health config", [34] = "get info"}
local service_commands = {
    [12] = {[1] = "set"},
    [13] = {[0] = "level", [1] = "raw-data config"},
    [15] = {}}
local calibration_bytes = {[16] = 6, [17] = 4, [22] = 4, [23] = 4}
local streams = {[0] = "algorithm", [1] = "heart rate", [2] = "ignored"}
local records = {[1] = "accelerometer samples", [5] = "PPG samples", [0xE0] = "summary"}
local boot_commands = {[0x00] = "get", [0x01] = "get version", [0x02] = "get ID",
    [0x11] = "read memory", [0x21] = "go", [0x31] = "write memory", [0x43] = "erase",
    [0x44] = "extended erase", [0x63] = "write protect", [0x73] = "write unprotect",
    [0x82] = "readout protect", [0x92] = "readout unprotect"}
local boot_answers = {[0x79] = "ACK", [0x1F] = "NACK"}

local f = {
    kind = ProtoField.uint8("shd_line.kind", "Kind", base.DEC, kinds),
    speaker = ProtoField.uint8("shd_line.speaker", "Speaker", base.DEC, speakers),
    raw = ProtoField.bytes("shd_line.raw", "On the line"),
    fcs = ProtoField.uint16("shd_line.fcs", "FCS", base.HEX),
    pin = ProtoField.uint8("shd_line.pin", "Pin", base.DEC, pins),
    level = ProtoField.uint8("shd_line.level", "Level"),
    baud = ProtoField.uint32("shd_line.baud", "Speed in bit/s"),
    parity = ProtoField.uint8("shd_line.even_parity", "Even parity"),
    channel = ProtoField.uint8("shd_line.channel", "Channel", base.DEC, channels),
    type = ProtoField.uint8("shd_line.type", "Type", base.DEC, types),
    service = ProtoField.uint8("shd_line.service", "Service", base.DEC, services),
    command = ProtoField.uint8("shd_line.command", "Command"),
    status = ProtoField.uint8("shd_line.status", "Status"),
    bytes = ProtoField.bytes("shd_line.bytes", "Bytes"),
    text = ProtoField.string("shd_line.text", "Text"),
    delay = ProtoField.int32("shd_line.delay_ms", "Delay in ms"),
    period = ProtoField.int32("shd_line.period_ms", "Period in ms"),
    batch = ProtoField.int32("shd_line.batch_count", "Samples to a report"),
    batch_extra = ProtoField.int32("shd_line.batch_extra", "Third batch word"),
    pending = ProtoField.uint16("shd_line.pending", "Samples pending"),
    calibration = ProtoField.bytes("shd_line.calibration", "Calibration"),
    clock = ProtoField.uint64("shd_line.clock_ms", "Wall clock in ms since 1970"),
    log_first = ProtoField.uint8("shd_line.log_first", "First byte"),
    log_level = ProtoField.uint8("shd_line.log_level", "Log level"),
    raw_type = ProtoField.uint16("shd_line.raw_data_type", "Raw-data type"),
    health0 = ProtoField.uint8("shd_line.health0", "Health setting 0"),
    health1 = ProtoField.uint8("shd_line.health1", "Health setting 1"),
    health2 = ProtoField.uint16("shd_line.health2", "Health setting 2"),
    health3 = ProtoField.uint16("shd_line.health3", "Health setting 3"),
    sample = ProtoField.bytes("shd_line.sample", "Sample"),
    x16 = ProtoField.int16("shd_line.x", "x"),
    y16 = ProtoField.int16("shd_line.y", "y"),
    z16 = ProtoField.int16("shd_line.z", "z"),
    xf = ProtoField.float("shd_line.fx", "x"),
    yf = ProtoField.float("shd_line.fy", "y"),
    zf = ProtoField.float("shd_line.fz", "z"),
    wf = ProtoField.float("shd_line.fw", "w"),
    pressure = ProtoField.uint32("shd_line.pressure", "Pressure in 1/2048 hPa"),
    bpm = ProtoField.uint32("shd_line.bpm", "Beats per minute"),
    heart_status = ProtoField.uint32("shd_line.heart_status", "Heart-rate status"),
    steps = ProtoField.uint32("shd_line.steps", "Steps"),
    date = ProtoField.uint32("shd_line.date", "Date"),
    health_steps = ProtoField.uint16("shd_line.health_steps", "Steps"),
    health_state = ProtoField.uint8("shd_line.health_state", "State"),
    ppg = ProtoField.uint16("shd_line.ppg", "PPG value"),
    stream = ProtoField.uint8("shd_line.stream", "Stream", base.DEC, streams, 0x0F),
    record = ProtoField.uint8("shd_line.record", "Record", base.HEX, records),
    dump_reset = ProtoField.uint8("shd_line.dump_reset", "Reset wanted"),
    dump_count = ProtoField.uint8("shd_line.dump_count", "Pieces"),
    dump_index = ProtoField.uint8("shd_line.dump_index", "Piece"),
    boot_start = ProtoField.uint8("shd_line.boot_start", "Start", base.HEX),
    boot_command = ProtoField.uint8("shd_line.boot_command", "Bootloader command", base.HEX,
                                    boot_commands),
    boot_complement = ProtoField.uint8("shd_line.boot_complement", "Complement", base.HEX),
    boot_answer = ProtoField.uint8("shd_line.boot_answer", "Answer", base.HEX, boot_answers),
    boot_address = ProtoField.uint32("shd_line.boot_address", "Address", base.HEX),
    boot_erase = ProtoField.uint16("shd_line.boot_erase", "Pages to erase (0xFFFF: all)", base.HEX),
    boot_length = ProtoField.uint8("shd_line.boot_length", "Bytes to write, less one"),
    boot_data = ProtoField.bytes("shd_line.boot_data", "Data"),
    boot_checksum = ProtoField.uint8("shd_line.boot_checksum", "Checksum", base.HEX),
}
for _, field in pairs(f) do table.insert(line.fields, field) end

local damaged = ProtoExpert.new("shd_line.damaged", "Damaged or cut off", expert.group.CHECKSUM,
                                expert.severity.ERROR)
local refused = ProtoExpert.new("shd_line.refused", "Refused", expert.group.RESPONSE_CODE,
                                expert.severity.WARN)
local short = ProtoExpert.new("shd_line.short", "Shorter than its fields", expert.group.MALFORMED,
                              expert.severity.WARN)
line.experts = {damaged, refused, short}

local function name_of(names, number)
    return names[number] or tostring(number)
end

-- Adds little-endian fields as far as the bytes reach: {field, size}, ... Returns what is left.
local function add_fields(tree, range, fields)
    for _, entry in ipairs(fields) do
        if range:len() < entry[2] then
            tree:add_proto_expert_info(short)
            return nil
        end
        tree:add_le(entry[1], range(0, entry[2]))
        range = range:len() > entry[2] and range(entry[2]) or nil
        if not range then return nil end
    end
    return range
end

local function add_status(tree, range)
    tree:add(f.status, range)
    if range:uint() ~= 0 then tree:add_proto_expert_info(refused) end
    return string.format(" status %d", range:uint())
end

local xyz16 = {size = 6, fields = {{f.x16, 2}, {f.y16, 2}, {f.z16, 2}}}
local xyz = {size = 12, fields = {{f.xf, 4}, {f.yf, 4}, {f.zf, 4}}}
local ppg = {size = 10, fields = {{f.ppg, 2}, {f.ppg, 2}, {f.ppg, 2}, {f.ppg, 2}, {f.ppg, 2}}}
local samples = {
    [16] = xyz16, [17] = xyz16,
    [22] = {size = 4, fields = {{f.pressure, 4}}},
    [23] = ppg,
    [32] = xyz, [33] = xyz,
    [35] = {size = 16, fields = {{f.xf, 4}, {f.yf, 4}, {f.zf, 4}, {f.wf, 4}}},
    [48] = {size = 4, fields = {{f.steps, 4}}},
    [50] = {size = 8, fields = {{f.bpm, 4}, {f.heart_status, 4}}},
    [51] = {size = 4, fields = {{f.bytes, 4}}},
    [64] = {size = 16, fields = {{f.date, 4}, {f.health_steps, 2}, {f.bytes, 4},
                                 {f.health_state, 1}, {f.bytes, 5}}},
}

local function add_samples(tree, range, layout)
    local count = 0
    while range and range:len() >= layout.size do
        add_fields(tree:add(f.sample, range(0, layout.size)), range(0, layout.size), layout.fields)
        range = range:len() > layout.size and range(layout.size) or nil
        count = count + 1
    end
    if range then
        tree:add(f.bytes, range)
        tree:add_proto_expert_info(short)
    end
    return count
end

local function add_request(tree, service, command, range)
    if service == 12 then add_fields(tree, range, {{f.clock, 8}})
    elseif service == 13 and command == 0 then
        add_fields(tree, range, {{f.log_first, 1}, {f.log_level, 1}})
    elseif service == 13 then add_fields(tree, range, {{f.raw_type, 2}})
    elseif command == 2 then add_fields(tree, range, {{f.delay, 4}})
    elseif command == 3 then
        add_fields(tree, range, {{f.period, 4}, {f.batch, 4}, {f.batch_extra, 4}})
        if range:len() >= 8 then
            return string.format(" every %d ms, %d to a report", range(0, 4):le_int(),
                                 range(4, 4):le_int())
        end
    elseif command == 19 then tree:add(f.calibration, range)
    elseif service == 64 and command == 32 then
        add_fields(tree, range, {{f.health0, 1}, {f.health1, 1}, {f.health2, 2}, {f.health3, 2}})
    else tree:add(f.bytes, range)
    end
    return ""
end

local function add_reply(tree, service, command, range)
    if service == 15 or (service >= 16 and command == 34) then
        local text = range:stringz()
        tree:add(f.text, range, text)
        return string.format(' "%s"', text)
    end
    if service >= 16 and command == 4 and range:len() >= 3 then
        tree:add_le(f.pending, range(0, 2))
        return string.format(" %d pending,", range(0, 2):le_uint()) .. add_status(tree, range(2, 1))
    end
    local size = service >= 16 and command == 18 and calibration_bytes[service] or 0
    if size > 0 and range:len() > size then
        tree:add(f.calibration, range(0, size))
        return add_status(tree, range(size, 1))
    end
    return add_status(tree, range(0, 1))
end

local function add_sensor_packet(tree, range)
    add_fields(tree, range, {{f.type, 1}, {f.service, 1}, {f.command, 1}})
    if range:len() < 3 then return "short packet" end
    local kind, service, command = range(0, 1):uint(), range(1, 1):uint(), range(2, 1):uint()
    local words = name_of(types, kind) .. " " .. name_of(services, service)
    local rest = range:len() > 3 and range(3) or nil
    if kind == 2 then
        local layout = samples[service]
        if not rest then return words end
        if not layout then tree:add(f.bytes, rest) return words end
        return string.format("%s %d samples", words, add_samples(tree, rest, layout))
    end
    words = words .. " " .. name_of(service_commands[service] or commands, command)
    if not rest then return words end
    if kind == 0 then return words .. add_request(tree, service, command, rest) end
    return words .. add_reply(tree, service, command, rest)
end

local function add_control_packet(tree, range)
    add_fields(tree, range, {{f.type, 1}, {f.command, 1}})
    if range:len() < 2 then return "short packet" end
    local command = range(1, 1):uint()
    return name_of(types, range(0, 1):uint()) .. " " ..
        (command == 0 and "handshake" or "control command " .. command)
end

local function add_raw_data(tree, range)
    if range:len() < 3 then tree:add_proto_expert_info(short) return "raw data" end
    tree:add(f.stream, range(0, 1))
    tree:add(f.record, range(2, 1))
    local stream, record = range(0, 1):uint() % 16, range(2, 1):uint()
    local words = string.format("raw data, %s stream, %s", name_of(streams, stream),
                                name_of(records, record))
    local rest = range:len() > 3 and range(3) or nil
    if not rest then return words end
    if record == 1 then add_samples(tree, rest, xyz16)
    elseif record == 5 then add_samples(tree, rest, ppg)
    elseif record == 0xE0 and stream == 0 then add_fields(tree, rest, {{f.steps, 4}})
    elseif record == 0xE0 then add_fields(tree, rest, {{f.bpm, 4}, {f.heart_status, 4}})
    else tree:add(f.bytes, rest)
    end
    return words
end

local function add_core_dump(tree, range)
    local rest = add_fields(tree, range, {{f.dump_reset, 1}, {f.dump_count, 1}, {f.dump_index, 1}})
    if range:len() < 3 then return "core dump" end
    if rest then tree:add(f.bytes, rest) end
    return string.format("core dump piece %d of %d, %d bytes%s", range(2, 1):uint(),
        range(1, 1):uint(), range:len() - 3, range(0, 1):uint() ~= 0 and ", reset me" or "")
end

local function add_log(tree, range)
    tree:add(f.text, range)
    return "log " .. range:string()
end

local packets = {[0] = add_control_packet, [1] = add_sensor_packet, [4] = add_log,
                 [5] = add_raw_data, [7] = add_core_dump}

-- The packet and its FCS without stuffing and flag.
local function unstuffed(range)
    local stuffed, plain, escaped = range:bytes(), ByteArray.new(), false
    local count = 0
    plain:set_size(stuffed:len())
    for i = 0, stuffed:len() - 2 do
        local byte = stuffed:get_index(i)
        if byte == 0x7D and not escaped then
            escaped = true
        else
            plain:set_index(count, escaped and bit.bxor(byte, 0x20) or byte)
            escaped, count = false, count + 1
        end
    end
    plain:set_size(count)
    return plain
end

local function dissect_frame(tree, range)
    local plain = unstuffed(range)
    if plain:len() < 3 then return "empty packet" end
    local frame = plain:tvb("Frame without stuffing")
    local packet = frame(0, frame:len() - 2)
    tree:add(f.channel, packet(0, 1))
    local channel = packet(0, 1):uint()
    local words
    if packet:len() > 1 and packets[channel] then
        words = packets[channel](tree, packet(1))
    else
        words = "unknown packet"
    end
    tree:add_le(f.fcs, frame(frame:len() - 2, 2))
    return words
end

local function is_xor_zero(bytes)
    local sum = 0
    for i = 0, bytes:len() - 1 do sum = bit.bxor(sum, bytes:get_index(i)) end
    return sum == 0
end

local function dissect_for_bootloader(tree, range)
    local bytes, size = range:bytes(), range:len()
    local first = bytes:get_index(0)
    if size == 1 and first == 0x7F then
        tree:add(f.boot_start, range)
        return "start"
    end
    if size == 2 and bit.bxor(first, bytes:get_index(1)) == 0xFF then
        tree:add(f.boot_command, range(0, 1))
        tree:add(f.boot_complement, range(1, 1))
        return name_of(boot_commands, first)
    end
    if size == 3 and first == 0xFF and bytes:get_index(1) == 0xFF then
        tree:add(f.boot_erase, range(0, 2))
        tree:add(f.boot_checksum, range(2, 1))
        return "the whole flash"
    end
    if size == 5 and is_xor_zero(bytes) then
        tree:add(f.boot_address, range(0, 4))
        tree:add(f.boot_checksum, range(4, 1))
        return string.format("address 0x%08x", range(0, 4):uint())
    end
    if size == first + 3 then
        tree:add(f.boot_length, range(0, 1))
        tree:add(f.boot_data, range(1, size - 2))
        tree:add(f.boot_checksum, range(size - 1, 1))
        if not is_xor_zero(bytes:subset(0, size)) then tree:add_proto_expert_info(damaged) end
        return string.format("block of %d bytes", first + 1)
    end
    tree:add(f.bytes, range)
    return size .. " bytes"
end

local function dissect_from_bootloader(tree, range)
    local words = {}
    for i = 0, range:len() - 1 do
        local byte = range(i, 1):uint()
        tree:add(f.boot_answer, range(i, 1))
        if byte == 0x1F then tree:add_proto_expert_info(refused) end
        words[#words + 1] = boot_answers[byte] or string.format("%02x", byte)
    end
    return table.concat(words, " ")
end

function line.dissector(buffer, packet, root)
    packet.cols.protocol = "SHD"
    local tree = root:add(line, buffer())
    tree:add(f.kind, buffer(0, 1))
    local kind, speaker = buffer(0, 1):uint(), buffer(1, 1):uint()
    local range = buffer(2)
    local words
    if kind == 4 then
        tree:add(f.pin, range(0, 1))
        tree:add(f.level, range(1, 1))
        words = name_of(pins, range(0, 1):uint()) .. " " .. range(1, 1):uint()
    elseif kind == 5 then
        tree:add_le(f.baud, range(0, 4))
        tree:add(f.parity, range(4, 1))
        words = string.format("line %d bit/s %s", range(0, 4):le_uint(),
                              range(4, 1):uint() ~= 0 and "8E1" or "8N1")
    else
        tree:add(f.speaker, buffer(1, 1))
        tree:add(f.raw, range)
        packet.cols.src = speakers[speaker]
        packet.cols.dst = speakers[1 - speaker]
        if kind == 0 then
            words = dissect_frame(tree, range)
        elseif kind == 3 then
            words = "bootloader " .. (speaker == 0 and dissect_for_bootloader(tree, range)
                                      or dissect_from_bootloader(tree, range))
        else
            tree:add_proto_expert_info(damaged)
            words = kinds[kind]
        end
    end
    packet.cols.info = words
    tree:append_text(": " .. words)
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, line)
