# The language in a few lines: constants, a table, a loop, a function,
# fixed-point formatting into a buffer. `zan build hello.zs` then
# `zan run hello.zan`.
let planets = ["Mercury", "Venus", "Earth", "Mars"]
let radius = [2439.7, 6051.8, 6371.0, 3389.5]
buf line 64

func main
  print "Hello from a compiled script"
  loop i from 0 to count(planets)
    print planets[i]
    # kilometres with one decimal: fmt takes an integer and places the point
    fmt line radius[i] * 10 1 " km"
    print line
  fmt line square(12)
  print line
  exit 0

func square(x)
  return x * x
