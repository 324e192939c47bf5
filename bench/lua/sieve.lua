-- Sieve of Eratosthenes up to 10000000 with a table of flags; prints the
-- number of primes found.
local n = 10000000
local flags = {}
for i = 2, n do
  flags[i] = true
end
local count = 0
for i = 2, n do
  if flags[i] then
    count = count + 1
    for j = i * i, n, i do
      flags[j] = false
    end
  end
end
print(count)
