local Inventory = {}
Inventory.__index = Inventory

function Inventory.new()
  local self = setmetatable({}, Inventory)
  self.items = {}
  return self
end

function Inventory:add(name, count)
  self.items[name] = (self.items[name] or 0) + (count or 1)
end

function Inventory:report()
  for name, count in pairs(self.items) do
    print(string.format("%-10s %d", name, count))
  end
end

local inv = Inventory.new()
inv:add("apple", 3)
inv:add("pear")
if #arg > 0 then inv:add(arg[1]) end
inv:report()
return Inventory
