! Modules, procedures inside procedures, a common block, an entry point and a recursion.
module shapes
  implicit none
  integer :: counter = 0
  type :: box
     integer :: side
  end type box
contains
  integer function area(b)
    type(box), intent(in) :: b
    area = b%side * b%side
    counter = counter + 1
  end function area

  integer function volume(b)
    type(box), intent(in) :: b
    integer :: i
    volume = 0
    do i = 1, b%side
       volume = volume + area(b)
    end do
  end function volume

  recursive integer function factorial(n) result(f)
    integer, intent(in) :: n
    if (n < 2) then
       f = 1
    else
       f = n * factorial(n - 1)
    end if
  end function factorial
end module shapes

subroutine scale(values, n, by)
  implicit none
  integer :: n, i
  real :: values(n), by, shift
  real :: total
  common /shared/ total
  do i = 1, n
     values(i) = values(i) * by
     total = total + values(i)
  end do
  return
  entry shiftby(values, n, shift)
  do i = 1, n
     values(i) = values(i) + shift
  end do
end subroutine scale

program arrays
  use shapes
  implicit none
  real :: values(10), total
  common /shared/ total
  type(box) :: b
  integer :: i
  total = 0
  do i = 1, 10
     values(i) = real(i)
  end do
  call scale(values, 10, 2.0)
  call shiftby(values, 10, 1.0)
  b%side = 3
  block
    integer :: inner
    inner = volume(b) + factorial(4)
    call report(inner)
  end block
contains
  subroutine report(n)
    integer, intent(in) :: n
    integer :: copy
    copy = twice(n)
    if (copy == 12345) then
       print *, copy, total
       stop 3
    end if
    counter = counter + copy
  end subroutine report
  integer function twice(n)
    integer, intent(in) :: n
    twice = n + n
  end function twice
end program arrays
