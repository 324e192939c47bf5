-- Integer loop: sum of i for i in [0, 100000000), 64-bit integers.
local n = 100000000
local s = 0
for i = 0, n - 1 do
  s = s + i
end
print(s)
