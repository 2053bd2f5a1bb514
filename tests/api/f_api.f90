! The exported interface as a Fortran host calls it: character arguments
! with gfortran's hidden lengths, the names with a trailing underscore, the
! typed and any-type routines, per-parameter accessors, the type query and
! the reset. Exits with status 1 when a check fails.
program f_api
  implicit none
  external :: setinteger, getinteger, setdble, getdble, setlogical, getlogical
  external :: setchar, getchar, setany, getany, korn_reset_parameters
  external :: korn_set_nmin_matrix, korn_get_nmin_matrix, korn_set_logfile, korn_get_logfile
  external :: korn_set_omega_smo, korn_get_backup
  integer, external :: korn_parameter_type
  integer :: nfail, iv, ibk
  double precision :: dv
  logical :: lv
  character(len=12) :: s
  character(len=3) :: s3
  character(len=300) :: long

  nfail = 0

  ! nversion holds its load value until the first reset.
  call getinteger('nversion', iv)
  call check(iv == 4, 'nversion at load')

  ! Integers and reals.
  call setinteger('cl_omp', 7)
  call getinteger('cl_omp', iv)
  call check(iv == 7, 'cl_omp')
  call setinteger('nmin_vector   ', 13)
  call getinteger('nmin_vector', iv)
  call check(iv == 13, 'trailing blanks of a name')
  call setdble('omega_smo', 0.375d0)
  call getdble('omega_smo', dv)
  call check(dv == 0.375d0, 'omega_smo')
  call getdble('ecg', dv)
  call check(dv < -1.0d50, 'read-only ecg unset')

  ! Logicals arrive as the compiler stores them and come back as 1 or 0.
  call getlogical('backup', lv)
  call check(lv, 'backup default')
  call setlogical('backup', .false.)
  call getlogical('backup', lv)
  call check(.not. lv, 'backup false')
  call korn_get_backup(ibk)
  call check(ibk == 0, 'korn_get_backup')

  ! Strings: padded to the caller's length, cut to the parameter's width.
  call getchar('scratchfile', s)
  call check(s == 'scratch.korn', 'scratchfile default')
  call getchar('scratchfile', s3)
  call check(s3 == 'scr', 'cut to the caller length')
  call setchar('filnam', 'grid')
  call getchar('filnam', s)
  call check(s == 'grid        ', 'filnam padded')
  long = repeat('x', 150) // 'y'
  call setchar('filnam', long)
  call getchar('filnam', long)
  call check(long == repeat('x', 100), 'filnam cut to width 100')
  call setchar('ioform', 'formatted')
  call getchar('ioform', s)
  call check(s == 'f', 'ioform width 1')

  ! The any-type pair: a real with type 1 takes dval.
  call setany('conv_stop', 1, 3, 0.25d0, .false., ' ')
  call getdble('conv_stop', dv)
  call check(dv == 0.25d0, 'setany real with type 1')
  call setany('nmin_matrix', 1, 42, 0.0d0, .false., ' ')
  call getany('nmin_matrix', 1, iv, dv, lv, s)
  call check(iv == 42, 'getany integer')
  call setany('check_order', 4, 0, 0.0d0, .true., ' ')
  call getany('check_order', 4, iv, dv, lv, s)
  call check(lv, 'setany logical')
  call setany('logfile', 3, 0, 0.0d0, .false., 'amg.log')
  call getany('logfile', 3, iv, dv, lv, s)
  call check(s == 'amg.log', 'setany character')

  ! Per-parameter accessors.
  call korn_set_nmin_matrix(250)
  call korn_get_nmin_matrix(iv)
  call check(iv == 250, 'korn_set_nmin_matrix')
  call korn_set_omega_smo(0.5d0)
  call getdble('omega_smo', dv)
  call check(dv == 0.5d0, 'korn_set_omega_smo')
  call korn_set_logfile('f.log')
  call korn_get_logfile(s)
  call check(s == 'f.log', 'korn_set_logfile')

  ! The type query.
  call check(korn_parameter_type('cl_omp') == 1, 'type of cl_omp')
  call check(korn_parameter_type('conv_stop') == 2, 'type of conv_stop')
  call check(korn_parameter_type('logfile') == 3, 'type of logfile')
  call check(korn_parameter_type('backup') == 4, 'type of backup')
  call check(korn_parameter_type('mapping') == 0, 'type of mapping')

  ! The reset.
  call korn_reset_parameters()
  call getinteger('nversion', iv)
  call check(iv == -1000000000, 'nversion after reset')
  call getinteger('nmin_matrix', iv)
  call check(iv == 1, 'nmin_matrix after reset')
  call getlogical('backup', lv)
  call check(lv, 'backup after reset')
  call getchar('logfile', s)
  call check(s == ' ', 'logfile after reset')

  if (nfail /= 0) then
    write (*, '(i0, a)') nfail, ' check(s) failed'
    stop 1
  end if
  write (*, '(a)') 'Fortran interface: all checks passed'

contains

  subroutine check(ok, what)
    logical, intent(in) :: ok
    character(len=*), intent(in) :: what
    if (.not. ok) then
      write (*, '(2a)') 'check failed: ', what
      nfail = nfail + 1
    end if
  end subroutine check

end program f_api
