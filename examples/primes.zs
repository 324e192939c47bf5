# Primes below 100 by trial division; the exit code is how many there are.
buf out 16

func isPrime(n)
  if n < 2
    return 0
  let d = 2
  while d * d <= n
    if n % d == 0
      return 0
    d = d + 1
  return 1

func main
  let found = 0
  loop n from 2 to 100
    if isPrime(n)
      found = found + 1
      fmt out n
      print out
  exit found
