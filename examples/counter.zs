# A counter with two buttons, drawn with the draw statements: click "+" to
# count up and "-" to count down. Closing the window ends the program.
#
#   zan build examples/counter.zs && zan run counter.zan
#
# Without a display (or with DISPLAY unset) it runs headless; with
# ZAN_UI_DUMP=1 each frame lands in /tmp/zan-ui-frame-NNN.ppm, and
# ZAN_UI_SCRIPT feeds it clicks ("wait2;230,150;..." - see make demo).
let W = 320
let H = 200
# Colours as 0xRRGGBB: a named value becomes an i32 by truncation, which
# holds nothing above 0x7FFFFFFF.
let BG = 0x1E2430
let MINUS = 0xC0504D
let PLUS = 0x4F9D5D
let WHITE = 0xFFFFFF
buf label 32

# 1 when (px, py) lies inside the box
func inside(px, py, x, y, w, h)
  return px >= x and px < x + w and py >= y and py < y + h

func main
  win "Counter" W H
  let n = 0
  let running = 1
  while running and pump
    let e = poll
    while e != 0
      if e == 1
        let x = mousex
        let y = mousey
        if inside(x, y, 30, 120, 110, 56)
          n = n - 1
        if inside(x, y, 180, 120, 110, 56)
          n = n + 1
      if e == 3
        running = 0
      e = poll
    clear BG
    rect 30 120 110 56 MINUS
    rect 180 120 110 56 PLUS
    text 77 132 "-" WHITE 2
    text 227 132 "+" WHITE 2
    fmt label n
    text 30 44 "count" WHITE 2
    text 200 30 label WHITE 3
    present
    sleep 16
