#include "linux/redis_script.h"

namespace redis
{

namespace
{

/* The arguments that all have, and what is done to one object. */
constexpr const char *COMMON = R"lua(
local kind, prefix, life, ahead = KEYS[1], ARGV[1], ARGV[2], tonumber(ARGV[3])
local call, char = redis.call, string.char

local function now()
    local time = call('TIME')
    return time[1] * 1000 + math.floor(time[2] / 1000) + ahead
end

-- The parts of a stored value; nothing if it is none of ours.
local function parse(value)
    if not value or #value < 4 or value:byte(1) ~= 75 then return nil end
    local flags, writers, fields = value:byte(2, 4)
    local owner = 5 + writers * 8
    local field = flags >= 2 and owner + 8 or owner
    local message = field + fields * 4
    if message > #value + 1 then return nil end
    return {fieldwise = flags % 2 == 1, writers = value:sub(5, owner - 1),
            owner = value:sub(owner, field - 1), fields = value:sub(field, message - 1),
            message = value:sub(message)}
end

-- Where a kind's name holds no hash there is no object; the first that is put takes the place.
local is_foreign = false

local function get(of, key)
    local value = redis.pcall('HGET', of, key)
    if type(value) ~= 'table' then return value end
    if not value.err:find('WRONGTYPE', 1, true) then return call('HGET', of, key) end
    is_foreign = true
    return false
end

local function put(key, object)
    if is_foreign then call('DEL', kind) end
    local flags = (object.fieldwise and 1 or 0) + (object.owner ~= '' and 2 or 0)
    call('HSET', kind, key, 'K' .. char(flags, #object.writers / 8, #object.fields / 4) ..
        object.writers .. object.owner .. object.fields .. object.message)
    call('HDEL', 'vvlan:pending:' .. kind, key)
end

local function publish(operation, of, key, fields, message)
    call('PUBLISH', prefix .. of, char(operation) .. life .. struct.pack('>H', #key) .. key ..
        char(#fields / 4) .. fields .. message)
end

local function disown(of, key, owner)
    if owner ~= '' then call('SREM', 'vvlan:owned:' .. owner, of .. '\0' .. key) end
end

-- Deletes an object and tells of it as it was.
local function drop(of, key, value)
    local object = parse(value)
    call('HDEL', of, key)
    call('HDEL', 'vvlan:pending:' .. of, key)
    call('ZREM', 'vvlan:expiry', of .. '\0' .. key)
    if object then disown(of, key, object.owner) end
    publish(3, of, key, '', object and object.message or '')
end
)lua";

/* Who wrote an object, the caller now being the latest. */
constexpr const char *WRITERS = R"lua(
local function written(object)
    local before = object and object.writers or ''
    if before:sub(1, 8) == life then return before end
    local writers = life
    for at = 1, #before, 8 do
        local writer = before:sub(at, at + 7)
        if writer ~= life and #writers < 32 then writers = writers .. writer end
    end
    return writers
end
)lua";

constexpr const char *SELECT = R"lua(
-- Whether the parts of `wanted` that are not zero are equal in `key`.
local function matches(shape, wanted, key)
    local at, my = 1, 1
    for i = 1, #shape do
        local width, behind, mine = shape:sub(i, i), nil, nil
        if width == 's' then
            behind = (wanted:find('\0', at, true) or #wanted) + 1
            mine = (key:find('\0', my, true) or #key) + 1
        else
            behind, mine = at + tonumber(width), my + tonumber(width)
        end
        local part = wanted:sub(at, behind - 1)
        if part:find('[^%z]') and part ~= key:sub(my, mine - 1) then return false end
        at, my = behind, mine
    end
    return true
end

local function selects(mode, shape, wanted, key)
    if mode == 'k' then return wanted == key end
    return mode == 'a' or matches(shape, wanted, key)
end

-- Calls visit(key, value) for every selected object of the kind.
local function each(mode, shape, wanted, visit)
    if mode == 'k' then
        local value = get(kind, wanted)
        if value then visit(wanted, value) end
        return
    end
    if call('TYPE', kind).ok ~= 'hash' then return end
    local all = call('HGETALL', kind)
    for i = 1, #all, 2 do
        if selects(mode, shape, wanted, all[i]) then visit(all[i], all[i + 1]) end
    end
end

-- The same for the caller's owner objects.
local function each_owned(mode, shape, wanted, visit)
    for _, member in ipairs(call('SMEMBERS', 'vvlan:owned:' .. life)) do
        local nul = member:find('\0', 1, true)
        local key = member:sub(nul + 1)
        if member:sub(1, nul - 1) == kind and selects(mode, shape, wanted, key) then
            local value = get(kind, key)
            if value then visit(key, value) end
        end
    end
end
)lua";

constexpr const char *SET = R"lua(
local key, lease, expiry = ARGV[4], tonumber(ARGV[5]), tonumber(ARGV[6])
local is_owner = lease > 0
local old = parse(get(kind, key))
local object = {writers = written(old), owner = is_owner and life or '', fields = '',
                message = ARGV[7]}
if old and old.owner ~= object.owner then disown(kind, key, old.owner) end
put(key, object)
local member = kind .. '\0' .. key
if is_owner then
    call('SADD', 'vvlan:owned:' .. life, member)
    call('ZADD', 'vvlan:leases', now() + lease, life)
end
if expiry > 0 then
    call('ZADD', 'vvlan:expiry', now() + expiry, member)
else
    call('ZREM', 'vvlan:expiry', member)
end
publish(1, kind, key, '', object.message)
return 1
)lua";

constexpr const char *DEL = R"lua(
local value = get(kind, ARGV[4])
if not value then return 0 end
drop(kind, ARGV[4], value)
return 1
)lua";

/*
 * A packed message is its fields one after another: those that are set are left
 * out of what is stored and appended anew.
 */
constexpr const char *HSET = R"lua(
local key, fields, told, all, bare, news, expected = unpack(ARGV, 4, 10)

local function set_of(numbers)
    local set = {}
    for at = 1, #numbers, 4 do set[struct.unpack('>I4', numbers, at)] = true end
    return set
end

local function varint(text, at)
    local number, scale = 0, 1
    while true do
        local byte = text:byte(at)
        if not byte then return nil, at end
        number, scale, at = number + byte % 128 * scale, scale * 128, at + 1
        if byte < 128 then return number, at end
    end
end

-- The message without some of its fields, and those by their numbers; nil if it is none.
local function split(message, set)
    local kept, taken, at = {}, {}, 1
    while at <= #message do
        local from, tag, size = at, nil, nil
        tag, at = varint(message, at)
        if not tag then return nil end
        local wire = tag % 8
        if wire == 0 then size, at = varint(message, at)
        elseif wire == 1 then at = at + 8
        elseif wire == 5 then at = at + 4
        elseif wire == 2 then
            size, at = varint(message, at)
            if size then at = at + size end
        else return nil end
        if at > #message + 1 or ((wire == 0 or wire == 2) and not size) then return nil end
        local number, piece = math.floor(tag / 8), message:sub(from, at - 1)
        if set[number] then taken[number] = (taken[number] or '') .. piece
        else kept[#kept + 1] = piece end
    end
    return table.concat(kept), taken
end

local function union(...)
    local set, list = {}, {}
    for _, numbers in ipairs({...}) do
        for at = 1, #numbers, 4 do
            local number = numbers:sub(at, at + 3)
            if not set[number] then list[#list + 1] = number end
            set[number] = true
        end
    end
    table.sort(list)
    return table.concat(list)
end

local old = parse(get(kind, key))
local set, kept, taken = set_of(fields), nil, nil
if old then kept, taken = split(old.message, set) end
if not kept then old = nil end
if expected then
    local _, wanted = split(expected, set)
    for number in pairs(set) do
        if (taken or {})[number] ~= wanted[number] then return 0 end
    end
end
local before = old and (old.fieldwise and old.fields or all) or ''
local object = {fieldwise = true, writers = written(old), owner = old and old.owner or '',
                fields = union(before, fields), message = (kept or bare) .. news}
put(key, object)
publish(4, kind, key, told, object.message)
return 1
)lua";

constexpr const char *BEGIN = R"lua(
local is_owner, mode, shape, wanted, expiry = ARGV[4] == '1', unpack(ARGV, 5, 8)
local sections, pending = 'vvlan:sections:' .. kind, 'vvlan:pending:' .. kind
local identity = life .. ARGV[4] .. mode .. wanted
local open = call('HGETALL', sections)
for i = 1, #open, 2 do
    if open[i + 1] == identity then -- begun again, it takes over what it had marked
        call('HDEL', sections, open[i])
        call('ZREM', 'vvlan:deadlines', open[i] .. ' ' .. kind)
    end
end
if call('HLEN', sections) >= 4096 then return redis.error_reply('FULL sections') end
local number = tostring(call('INCR', 'vvlan:number'))
call('HSET', sections, number, identity)
if tonumber(expiry) > 0 then
    call('ZADD', 'vvlan:deadlines', now() + tonumber(expiry), number .. ' ' .. kind)
end

local function is_own(writers)
    for at = 1, #writers, 8 do
        if writers:sub(at, at + 7) == life then return true end
    end
    return false
end

local marks = {}
local function mark(key, value)
    local object = parse(value)
    if object and (is_owner or not is_own(object.writers)) then
        marks[#marks + 1] = key
        marks[#marks + 1] = number
    end
end
if is_owner then each_owned(mode, shape, wanted, mark) else each(mode, shape, wanted, mark) end
for at = 1, #marks, 1000 do
    call('HSET', pending, unpack(marks, at, math.min(at + 999, #marks)))
end
return #marks / 2
)lua";

constexpr const char *END = R"lua(
local is_owner, mode, shape, wanted = ARGV[4], ARGV[5], ARGV[6], ARGV[7]
local sections, pending = 'vvlan:sections:' .. kind, 'vvlan:pending:' .. kind
local identity, akin = life .. is_owner .. mode .. wanted, life .. is_owner
local open, ended, closed = call('HGETALL', sections), {}, {}
for i = 1, #open, 2 do
    if open[i + 1]:sub(1, 9) == akin then ended[open[i]] = true end
    if open[i + 1] == identity then
        closed[open[i]] = true
        call('HDEL', sections, open[i])
        call('ZREM', 'vvlan:deadlines', open[i] .. ' ' .. kind)
    end
end
if not next(ended) then return 0 end
local marks, count = call('HGETALL', pending), 0
for i = 1, #marks, 2 do
    local key, number = marks[i], marks[i + 1]
    if ended[number] and selects(mode, shape, wanted, key) then
        local value = get(kind, key)
        if value then
            drop(kind, key, value)
            count = count + 1
        end
    elseif closed[number] then
        call('HDEL', pending, key)
    end
end
return count
)lua";

constexpr const char *DEL_OW = R"lua(
local count = 0
each_owned(ARGV[4], ARGV[5], ARGV[6], function(key, value)
    drop(kind, key, value)
    count = count + 1
end)
return count
)lua";

constexpr const char *REAP = R"lua(
local lease, time, left = tonumber(ARGV[4]), now(), 1000

-- What stands in the place of our books is deleted: with it there nobody could write.
local foreign = {}
local function claim(book, sort)
    local standing = call('TYPE', book).ok
    if standing ~= sort and standing ~= 'none' then
        call('DEL', book)
        foreign[#foreign + 1] = book
    end
    return book
end

for _, index in ipairs({'vvlan:expiry', 'vvlan:deadlines', 'vvlan:leases'}) do
    claim(index, 'zset')
end
claim('vvlan:number', 'string')
claim('vvlan:owned:' .. life, 'set')
for i = 5, #ARGV do
    claim('vvlan:pending:' .. ARGV[i], 'hash')
    claim('vvlan:sections:' .. ARGV[i], 'hash')
end
if lease > 0 then call('ZADD', 'vvlan:leases', time + lease, life) end
if lease < 0 then call('ZADD', 'vvlan:leases', 0, life) end

local function due(index)
    return call('ZRANGEBYSCORE', index, '-inf', time, 'LIMIT', 0, left)
end

local function drop_member(member)
    local of, key = member:match('^(%Z*)%z(.*)$')
    local value = of and redis.pcall('HGET', of, key)
    if type(value) == 'string' then drop(of, key, value) end
    if not of then foreign[#foreign + 1] = 'a member "' .. member .. '"' end
    left = left - 1
end

for _, member in ipairs(due('vvlan:expiry')) do
    call('ZREM', 'vvlan:expiry', member)
    drop_member(member)
end
for _, entry in ipairs(due('vvlan:deadlines')) do
    local number, of = entry:match('^(%d+) (.+)$')
    if not of then number, of, foreign[#foreign + 1] = '', '', 'a deadline "' .. entry .. '"' end
    local marks = call('HGETALL', claim('vvlan:pending:' .. of, 'hash'))
    for i = 1, #marks, 2 do
        if marks[i + 1] == number and left > 0 then
            call('HDEL', 'vvlan:pending:' .. of, marks[i])
            drop_member(of .. '\0' .. marks[i])
        end
    end
    if left > 0 then
        call('HDEL', claim('vvlan:sections:' .. of, 'hash'), number)
        call('ZREM', 'vvlan:deadlines', entry)
    end
end
for _, gone in ipairs(due('vvlan:leases')) do
    local owned = claim('vvlan:owned:' .. gone, 'set')
    for _, member in ipairs(call('SMEMBERS', owned)) do
        if left > 0 then
            call('SREM', owned, member)
            drop_member(member)
        end
    end
    if left > 0 then call('ZREM', 'vvlan:leases', gone) end
end

local wait = -1
for _, index in ipairs({'vvlan:expiry', 'vvlan:deadlines', 'vvlan:leases'}) do
    local first = call('ZRANGE', index, 0, 0, 'WITHSCORES')
    if first[2] then
        local rest = math.max(tonumber(first[2]) - time, 0)
        if wait < 0 or rest < wait then wait = rest end
    end
end
return {wait, unpack(foreign, 1, 100)}
)lua";

} // namespace

std::string script_text(Script script)
{
    const std::string common = COMMON;
    switch (script) {
    case Script::SET:
        return common + WRITERS + SET;
    case Script::DEL:
        return common + DEL;
    case Script::HSET:
        return common + WRITERS + HSET;
    case Script::BEGIN:
        return common + SELECT + BEGIN;
    case Script::END:
        return common + SELECT + END;
    case Script::DEL_OW:
        return common + SELECT + DEL_OW;
    case Script::REAP:
        break;
    }
    return common + REAP;
}

} // namespace redis
