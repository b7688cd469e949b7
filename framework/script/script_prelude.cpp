#include "script/script_prelude.h"

std::string_view scriptPrelude() {
    return R"lua(
local byte, char, sub, rep, find_text = string.byte, string.char, string.sub, string.rep, string.find
local error, getmetatable, ipairs, pairs, pcall = error, getmetatable, ipairs, pairs, pcall
local rawget, tostring, type = rawget, tostring, type
local concat, pack, unpack, sort, move = table.concat, table.pack, table.unpack, table.sort, table.move
local min, mathtype, remove = math.min, math.type, table.remove
local forget, log, now, watch = forget, log, now, watch
-- For what is here alone.
local check_signal, states, take_signal, take_event, await = check_signal, states, take_signal, take_event, await
local key_code, get_int, set_int, get_string, set_string = key_code, get_int, set_int, get_string, set_string
for _, name in ipairs { "check_signal", "states", "take_signal", "take_event", "await",
                        "key_code", "get_int", "set_int", "get_string", "set_string" } do
    _G[name] = nil
end

local function check(value, wanted, position, name)
    if type(value) ~= wanted then
        error(("bad argument #%d to '%s' (%s expected, got %s)"):format(position, name, wanted,
            value == nil and "no value" or type(value)), 3)
    end
    return value
end

-- A text, or a number as one.
local function text(value, position, name)
    if type(value) == "number" then return tostring(value) end
    if type(value) ~= "string" then
        error(("bad argument #%d to '%s' (string expected, got %s)"):format(position, name,
            value == nil and "no value" or type(value)), 3)
    end
    return value
end

-- Errors and metatables. A handler inside the error would not be counted; one after it is.
function xpcall(f, handler, ...)
    local results = pack(pcall(f, ...))
    if results[1] then return unpack(results, 1, results.n) end
    return false, handler(results[2])
end

local setmeta = setmetatable
function setmetatable(object, metatable)
    if type(metatable) == "table" and rawget(metatable, "__gc") ~= nil then
        error("a metatable with '__gc' is not for scripts", 2)
    end
    return setmeta(object, metatable)
end

-- Tables as they are: what stands behind a metatable may have no end, and few elements far apart
-- make a long list.
local most_elements = 1000000
local function plain(f)
    return function(list, ...)
        if type(list) == "table" then
            if getmetatable(list) ~= nil then
                error("the functions of 'table' take tables without a metatable", 2)
            elseif #list > most_elements then
                error("the functions of 'table' take lists of at most " .. most_elements .. " elements", 2)
            end
        end
        return f(list, ...)
    end
end
for _, name in ipairs { "concat", "insert", "remove", "unpack" } do
    table[name] = plain(table[name])
end
table.sort = plain(function(list, less)
    check(list, "table", 1, "sort")
    if less ~= nil then check(less, "function", 2, "sort") end
    return sort(list, less and function(a, b) return less(a, b) end or function(a, b) return a < b end)
end)
table.move = plain(function(from, first, last, to, other)
    if other ~= nil and getmetatable(check(other, "table", 5, "move")) ~= nil then
        error("the functions of 'table' take tables without a metatable", 2)
    end
    if mathtype(first) ~= "integer" or mathtype(last) ~= "integer" or
       last >= first and not (last - first >= 0 and last - first < most_elements) then
        error("table.move takes whole numbers and moves at most " .. most_elements .. " elements", 2)
    end
    return move(from, first, last, to, other)
end)

-- Strings.
function string.rep(s, n, separator)
    s = text(s, 1, "rep")
    if s == "" and (separator == nil or separator == "") then return "" end
    return rep(s, n, separator)
end

-- Patterns: a pattern is a list of items. An item matches one character of a set, so many times, or
-- is one of the others. A capture's number is known from the pattern: what was captured on a way
-- that failed is written over.
local function set_of(...)
    local set = {}
    for _, range in ipairs { ... } do
        for b = range[1], range[2] do set[b] = true end
    end
    return set
end
local function complement(set)
    local other = {}
    for b = 0, 255 do other[b] = not set[b] or nil end
    return other
end
local digit, upper, lower = { 48, 57 }, { 65, 90 }, { 97, 122 }
local any = set_of({ 0, 255 })
local classes = {
    a = set_of(upper, lower), c = set_of({ 0, 31 }, { 127, 127 }), d = set_of(digit), g = set_of({ 33, 126 }),
    l = set_of(lower), p = set_of({ 33, 47 }, { 58, 64 }, { 91, 96 }, { 123, 126 }), s = set_of({ 9, 13 }, { 32, 32 }),
    u = set_of(upper), w = set_of(digit, upper, lower), x = set_of(digit, { 65, 70 }, { 97, 102 }),
}
for letter, set in pairs { a = classes.a, c = classes.c, d = classes.d, g = classes.g, l = classes.l,
                           p = classes.p, s = classes.s, u = classes.u, w = classes.w, x = classes.x } do
    classes[letter:upper()] = complement(set)
end

-- The set of '%' and a character.
local function escaped(c)
    return classes[c] or { [byte(c)] = true }
end

-- The set whose '[' is before that place, and the place behind it.
local function read_set(pattern, at)
    local is_negated = sub(pattern, at, at) == "^"
    if is_negated then at = at + 1 end
    local set, start = {}, at
    while sub(pattern, at, at) ~= "]" or at == start do
        local c, following = sub(pattern, at, at), sub(pattern, at + 1, at + 1)
        if c == "" or c == "%" and following == "" then return nil, "malformed pattern (missing ']')" end
        local last = sub(pattern, at + 2, at + 2)
        if c == "%" then
            for b in pairs(escaped(following)) do set[b] = true end
            at = at + 2
        elseif following == "-" and last ~= "]" and last ~= "" then
            for b = byte(c), byte(last) do set[b] = true end
            at = at + 3
        else
            set[byte(c)] = true
            at = at + 1
        end
    end
    return is_negated and complement(set) or set, at + 1
end

local function read_single(pattern, at)
    local c = sub(pattern, at, at)
    if c == "." then return any, at + 1 end
    if c == "[" then return read_set(pattern, at + 1) end
    if c ~= "%" then return { [byte(c)] = true }, at + 1 end
    if at == #pattern then return nil, "malformed pattern (ends with '%')" end
    return escaped(sub(pattern, at + 1, at + 1)), at + 2
end

local function read_pattern(pattern, at)
    local items, open, captures, is_closed = {}, {}, 0, {}
    while at <= #pattern do
        local c, following = sub(pattern, at, at), sub(pattern, at + 1, at + 1)
        local item
        if c == "(" then
            captures = captures + 1
            if captures > 32 then return nil, "too many captures" end
            local is_position = following == ")"
            item = { op = is_position and "position" or "open", capture = captures }
            if not is_position then open[#open + 1] = captures end
            at = at + (is_position and 2 or 1)
        elseif c == ")" then
            if #open == 0 then return nil, "invalid pattern capture" end
            item = { op = "close", capture = open[#open] }
            is_closed[open[#open]] = true
            open[#open] = nil
            at = at + 1
        elseif c == "$" and at == #pattern then
            item = { op = "end" }
            at = at + 1
        elseif c == "%" and following == "b" then
            if at + 3 > #pattern then return nil, "malformed pattern (missing arguments to '%b')" end
            item = { op = "balance", first = byte(pattern, at + 2), last = byte(pattern, at + 3) }
            at = at + 4
        elseif c == "%" and following == "f" then
            if sub(pattern, at + 2, at + 2) ~= "[" then return nil, "missing '[' after '%f' in pattern" end
            local set, next = read_set(pattern, at + 3)
            if not set then return nil, next end
            item = { op = "frontier", set = set }
            at = next
        elseif c == "%" and classes.d[byte(following)] then
            local number = byte(following) - 48
            if not is_closed[number] then return nil, "invalid capture index %" .. number end
            item = { op = "again", capture = number }
            at = at + 2
        else
            local set, next = read_single(pattern, at)
            if not set then return nil, next end
            local times = sub(pattern, next, next)
            local is_repeated = times ~= "" and find_text("*+-?", times, 1, true) ~= nil
            item = { op = is_repeated and times or "one", set = set }
            at = next + (is_repeated and 1 or 0)
        end
        items[#items + 1] = item
    end
    if #open > 0 then return nil, "unfinished capture" end
    items.captures, items.from, items.to = captures, {}, {}
    return items
end

-- The end of the match, the place behind it, that begins at that place and item; nil without one.
local function match_at(s, at, items, i)
    while true do
        local item = items[i]
        if not item then return at end
        i = i + 1
        local op, set = item.op, item.set
        if op == "one" then
            if not set[byte(s, at)] then return nil end
            at = at + 1
        elseif op == "*" or op == "+" then
            local first, last = at, at
            while set[byte(s, last)] do last = last + 1 end
            if op == "+" then first = first + 1 end
            for from = last, first, -1 do
                local stop = match_at(s, from, items, i)
                if stop then return stop end
            end
            return nil
        elseif op == "-" then
            local stop = match_at(s, at, items, i)
            while not stop and set[byte(s, at)] do
                at = at + 1
                stop = match_at(s, at, items, i)
            end
            return stop
        elseif op == "?" then
            local stop = set[byte(s, at)] and match_at(s, at + 1, items, i)
            if stop then return stop end
        elseif op == "open" then
            items.from[item.capture] = at
        elseif op == "close" then
            items.to[item.capture] = at - 1
        elseif op == "position" then
            items.from[item.capture], items.to[item.capture] = at, false
        elseif op == "end" then
            if at ~= #s + 1 then return nil end
        elseif op == "frontier" then
            if set[at > 1 and byte(s, at - 1) or 0] or not set[byte(s, at) or 0] then return nil end
        elseif op == "again" then
            local captured = sub(s, items.from[item.capture], items.to[item.capture] or 0)
            if sub(s, at, at + #captured - 1) ~= captured then return nil end
            at = at + #captured
        else -- balance
            if byte(s, at) ~= item.first then return nil end
            local depth = 1
            repeat
                at = at + 1
                local b = byte(s, at)
                if not b then return nil end
                if b == item.last then depth = depth - 1 elseif b == item.first then depth = depth + 1 end
            until depth == 0
            at = at + 1
        end
    end
end

-- What a match captured from number `first` on; 0, and 1 where the pattern has no captures, is all of it.
local function captured(s, items, i, start, stop)
    if i == 0 or items.captures == 0 then return sub(s, start, stop - 1) end
    local last = items.to[i]
    if last == false then return items.from[i] end
    return sub(s, items.from[i], last)
end
local function all_captured(s, items, start, stop)
    local values = {}
    for i = 1, items.captures == 0 and 1 or items.captures do values[i] = captured(s, items, i, start, stop) end
    return values
end

-- The first match from there on: where it begins and ends, nil without one.
local function search(s, at, items, is_anchored)
    repeat
        local stop = match_at(s, at, items, 1)
        if stop then return at, stop end
        at = at + 1
    until is_anchored or at > #s + 1
end

local function first_place(s, init)
    init = init or 1
    if init < 0 then init = #s + init + 1 end
    return init < 1 and 1 or init
end

local function items_of(pattern, takes_anchor)
    local is_anchored = takes_anchor and sub(pattern, 1, 1) == "^"
    local items, why = read_pattern(pattern, is_anchored and 2 or 1)
    if not items then error(why, 3) end
    return items, is_anchored
end

local longest_needle = 1024

function string.find(s, pattern, init, is_plain)
    s, pattern = text(s, 1, "find"), text(pattern, 2, "find")
    if init ~= nil then check(init, "number", 3, "find") end
    local at = first_place(s, init)
    if at > #s + 1 then return nil end
    if is_plain then
        if #pattern > longest_needle then
            error("a text of more than " .. longest_needle .. " bytes is not looked for", 2)
        end
        return find_text(s, pattern, at, true)
    end
    local items, is_anchored = items_of(pattern, true)
    local start, stop = search(s, at, items, is_anchored)
    if not start then return nil end
    if items.captures == 0 then return start, stop - 1 end
    return start, stop - 1, unpack(all_captured(s, items, start, stop))
end

function string.match(s, pattern, init)
    s, pattern = text(s, 1, "match"), text(pattern, 2, "match")
    if init ~= nil then check(init, "number", 3, "match") end
    local at = first_place(s, init)
    if at > #s + 1 then return nil end
    local items, is_anchored = items_of(pattern, true)
    local start, stop = search(s, at, items, is_anchored)
    if not start then return nil end
    return unpack(all_captured(s, items, start, stop))
end

function string.gmatch(s, pattern, init)
    s, pattern = text(s, 1, "gmatch"), text(pattern, 2, "gmatch")
    if init ~= nil then check(init, "number", 3, "gmatch") end
    local items = items_of(pattern, false)
    local at, last = first_place(s, init), nil
    return function()
        while at <= #s + 1 do
            local start, stop = search(s, at, items, false)
            if not start then
                at = #s + 2
            elseif stop == last then -- empty, where the one before ended
                at = start + 1
            else
                at, last = stop, stop
                return unpack(all_captured(s, items, start, stop))
            end
        end
    end
end

local function filled(template, s, items, start, stop)
    local parts, at = {}, 1
    while true do
        local sign = find_text(template, "%", at, true)
        parts[#parts + 1] = sub(template, at, (sign or 0) - 1)
        if not sign then return concat(parts) end
        local c = sub(template, sign + 1, sign + 1)
        if c == "%" then
            parts[#parts + 1] = "%"
        elseif c ~= "" and classes.d[byte(c)] then
            local number = byte(c) - 48
            if number > (items.captures == 0 and 1 or items.captures) then
                error("invalid capture index %" .. number .. " in replacement string", 4)
            end
            parts[#parts + 1] = tostring(captured(s, items, number, start, stop))
        else
            error("invalid use of '%' in replacement string", 4)
        end
        at = sign + 2
    end
end

local function replacement(by, s, items, start, stop)
    local value
    if type(by) == "string" then
        value = filled(by, s, items, start, stop)
    elseif type(by) == "table" then
        value = by[captured(s, items, 1, start, stop)]
    else
        value = by(unpack(all_captured(s, items, start, stop)))
    end
    if not value then return sub(s, start, stop - 1) end
    if type(value) ~= "string" and type(value) ~= "number" then
        error("invalid replacement value (a " .. type(value) .. ")", 3)
    end
    return value
end

function string.gsub(s, pattern, by, most)
    s, pattern = text(s, 1, "gsub"), text(pattern, 2, "gsub")
    if type(by) ~= "table" and type(by) ~= "function" then by = text(by, 3, "gsub") end
    if most ~= nil then check(most, "number", 4, "gsub") end
    local items, is_anchored = items_of(pattern, true)
    local parts, copied, at, count, last = {}, 1, 1, 0, nil
    while at <= #s + 1 and not (most and count >= most) do
        local stop = match_at(s, at, items, 1)
        if stop and stop ~= last then
            count = count + 1
            parts[#parts + 1] = sub(s, copied, at - 1)
            parts[#parts + 1] = replacement(by, s, items, at, stop)
            at, last, copied = stop, stop, stop
        else
            at = at + 1
        end
        if is_anchored then break end
    end
    parts[#parts + 1] = sub(s, copied)
    return concat(parts), count
end

-- Output, waits, variables and keys.
function print(...)
    local values = pack(...)
    for i = 1, values.n do values[i] = tostring(values[i]) end
    log(concat(values, "\t"))
end

-- Waits. In all of them the handlers of signals are called. Signals are kept, in the order in which
-- they came, until a wait for one has passed them.
local arrived, handlers = {}, {}
local most_signals = 1000

local function check_time(value, position, name)
    if not (check(value, "number", position, name) >= 0) then
        error(("bad argument #%d to '%s' (seconds from 0 on expected, got %s)"):format(position, name,
            tostring(value)), 3)
    end
    return value
end

local function check_such(name, parameters, wait)
    check_signal(check(name, "string", 1, wait))
    if parameters ~= nil then check(parameters, "table", 3, wait) end
end

local function is_such(signal, name, parameters)
    if not find_text(signal.name, name, 1, true) then return false end
    for parameter, value in pairs(parameters or {}) do
        if signal[parameter] ~= value then return false end
    end
    return true
end

-- As many as may be kept, at a time: waits end, whatever comes.
local function take_signals()
    for _ = 1, most_signals do
        local signal = take_signal()
        if not signal then return end
        if #arrived == most_signals then remove(arrived, 1) end
        arrived[#arrived + 1] = signal
        for _, handler in ipairs(handlers) do
            if is_such(signal, handler.name, handler.parameters) then handler.call(signal) end
        end
    end
end

-- Why nothing is waited for; nil while it is.
local function end_of_waits()
    for _, signal in ipairs(arrived) do
        if signal.ends_waits then return signal.ends_waits end
    end
end

-- What `look` finds, or nil and, where waits are over, why. A watch is waited for besides.
local function wait_for(look, timeout, watch)
    local deadline = now() + timeout
    while true do
        take_signals()
        local found = look()
        if found then return found end
        local why = end_of_waits()
        if why then return nil, why end
        local left = deadline - now()
        if left <= 0 then return nil end
        await(left, watch)
    end
end

local function nothing() end

function sleep(seconds)
    wait_for(nothing, check_time(seconds, 1, "sleep"))
end

function wait_until(predicate, timeout, interval)
    check(predicate, "function", 1, "wait_until")
    local deadline = now() + check_time(timeout, 2, "wait_until")
    if interval == nil then interval = 0.05 end
    check_time(interval, 3, "wait_until")
    while true do
        local why = end_of_waits()
        local result = predicate()
        if result then return result end
        local left = deadline - now()
        if why then return nil, why end
        if left <= 0 then return nil end
        wait_for(nothing, min(interval, left))
    end
end

function wait(number, timeout)
    return wait_for(function() return take_event(number) end, check_time(timeout, 2, "wait"), number)
end

-- Of a watch that begins with the wait.
local function wait_event(kind, text, timeout)
    local number = watch(kind, text)
    local seen, why = wait_for(function() return take_event(number) end, timeout, number)
    forget(number)
    return seen, why
end
function wait_trace(text, timeout)
    return wait_event("trace", text, check_time(timeout, 2, "wait_trace"))
end
local function wait_such_state(text, timeout)
    local seen, why = wait_event("state", text, timeout)
    if seen or why then return seen, why end
    local there = concat(states(), ", ")
    return nil, "there is " .. (there ~= "" and there or "no state")
end
function wait_state(text, timeout)
    return wait_such_state(text, check_time(timeout, 2, "wait_state"))
end

-- The first such signal, with all before it.
local function pass(name, parameters)
    for i, signal in ipairs(arrived) do
        if is_such(signal, name, parameters) then
            move(arrived, i + 1, #arrived + i, 1)
            return signal
        end
        if signal.ends_waits then return nil end
    end
end

-- Of a signal with that name that has come: which of the parameters it does not have. Nil for none.
local function lacking(name, parameters)
    for parameter in pairs(parameters or {}) do
        local other
        for _, signal in ipairs(arrived) do
            if find_text(signal.name, name, 1, true) then
                if signal[parameter] ~= nil then other = nil break end
                other = signal
            end
        end
        if other then
            local names = {}
            for known in pairs(other) do
                if known ~= "name" and known ~= "ends_waits" then names[#names + 1] = known end
            end
            sort(names)
            return ("%s came, and has no '%s'%s"):format(other.name, parameter,
                #names > 0 and " but " .. concat(names, ", ") or "")
        end
    end
end

local function wait_such(name, timeout, parameters)
    local signal, why = wait_for(function() return pass(name, parameters) end, timeout)
    return signal, why or not signal and lacking(name, parameters) or nil
end
function wait_signal(name, timeout, parameters)
    check_such(name, parameters, "wait_signal")
    return wait_such(name, check_time(timeout, 2, "wait_signal"), parameters)
end

function when(name, handler, parameters)
    check_such(name, parameters, "when")
    handlers[#handlers + 1] = { name = name, call = check(handler, "function", 2, "when"), parameters = parameters }
end

-- Waits whose end is an error.
local function described(name, parameters)
    local parts = { name }
    for parameter, value in pairs(parameters or {}) do
        parts[#parts + 1] = tostring(parameter) .. "=" .. tostring(value)
    end
    return concat(parts, " ")
end
local function not_come(what, timeout, why)
    return ("%s did not come within %s s%s"):format(what, timeout, why and ": " .. why or "")
end

function expect_signal(name, timeout, parameters)
    check_such(name, parameters, "expect_signal")
    local signal, why = wait_such(name, check_time(timeout, 2, "expect_signal"), parameters)
    if signal then return signal end
    local names = {}
    for i, other in ipairs(arrived) do names[i] = other.name end
    error(not_come(described(name, parameters), timeout, why) .. "; since the last one that was waited for: " ..
        (#names > 0 and concat(names, ", ") or "nothing"), 2)
end

function expect_no_signal(name, timeout, parameters)
    check_such(name, parameters, "expect_no_signal")
    if wait_such(name, check_time(timeout, 2, "expect_no_signal"), parameters) then
        error(described(name, parameters) .. " came, within " .. timeout .. " s", 2)
    end
end

function expect_state(text, timeout)
    local state, why = wait_such_state(text, check_time(timeout, 2, "expect_state"))
    return state or error(not_come("the state '" .. text .. "'", timeout, why), 2)
end

local function variables(get, set)
    return setmeta({}, {
        __index = function(_, name) return get(name) end,
        __newindex = function(_, name, value) set(name, value) end,
        __metatable = "system variables",
    })
end
sys_int, sys_string = variables(get_int, set_int), variables(get_string, set_string)
key = setmeta({}, {
    __index = function(_, name) return key_code(mathtype(name) == "integer" and tostring(name) or name) end,
    __newindex = function() error("the codes of keys are fixed", 2) end,
    __metatable = "keys",
})
)lua";
}
