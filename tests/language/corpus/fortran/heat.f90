program heat
  implicit none
  integer, parameter :: n = 10
  real :: u(n), unew(n)
  integer :: i, step

  u = 0.0
  u(1) = 100.0
  do step = 1, 50
     do i = 2, n - 1
        unew(i) = u(i) + 0.25 * (u(i-1) - 2.0 * u(i) + u(i+1))
     end do
     u(2:n-1) = unew(2:n-1)
  end do
  print *, 'final:', u
end program heat
