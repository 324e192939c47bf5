-- Mandelbrot set on a 400x400 grid over [-1.5, 0.5] x [-1, 1], at most 200
-- iterations per point; prints how many points never escape.
local size = 400
local limit = 200
local count = 0
for y = 0, size - 1 do
  local ci = 2.0 * y / size - 1.0
  for x = 0, size - 1 do
    local cr = 2.0 * x / size - 1.5
    local zr, zi = 0.0, 0.0
    local k = 0
    while k < limit do
      local zr2 = zr * zr
      local zi2 = zi * zi
      if zr2 + zi2 > 4.0 then break end
      zi = 2.0 * zr * zi + ci
      zr = zr2 - zi2 + cr
      k = k + 1
    end
    if k == limit then count = count + 1 end
  end
end
print(count)
