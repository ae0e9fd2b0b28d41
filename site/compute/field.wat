;; Computes a picture of the Mandelbrot set, one byte for each point, into the
;; exported memory. Build: wat2wasm field.wat -o field.wasm
(module
  (memory (export "memory") 1)

  ;; Fills width * height bytes with the number of steps (at most $limit)
  ;; after which each point escapes, and returns the sum of all steps.
  (func (export "fill")
    (param $width i32) (param $height i32) (param $limit i32) (result i32)
    (local $x i32) (local $y i32) (local $steps i32) (local $sum i32)
    (local $scale f64) (local $cr f64) (local $ci f64)
    (local $zr f64) (local $zi f64) (local $rr f64) (local $ii f64)

    (local.set $scale
      (f64.div (f64.const 3.3) (f64.convert_i32_s (local.get $width))))
    (loop $rows
      (local.set $ci
        (f64.mul (local.get $scale)
          (f64.sub (f64.convert_i32_s (local.get $y))
            (f64.mul (f64.const 0.5)
              (f64.convert_i32_s (local.get $height))))))
      (local.set $x (i32.const 0))
      (loop $points
        (local.set $cr
          (f64.sub
            (f64.mul (local.get $scale) (f64.convert_i32_s (local.get $x)))
            (f64.const 2.35)))
        (local.set $zr (f64.const 0))
        (local.set $zi (f64.const 0))
        (local.set $steps (i32.const 0))
        (block $escaped
          (loop $step
            (local.set $rr (f64.mul (local.get $zr) (local.get $zr)))
            (local.set $ii (f64.mul (local.get $zi) (local.get $zi)))
            (br_if $escaped
              (f64.gt (f64.add (local.get $rr) (local.get $ii))
                (f64.const 4)))
            (local.set $zi
              (f64.add (local.get $ci)
                (f64.mul (f64.const 2)
                  (f64.mul (local.get $zr) (local.get $zi)))))
            (local.set $zr
              (f64.add (local.get $cr)
                (f64.sub (local.get $rr) (local.get $ii))))
            (local.set $steps (i32.add (local.get $steps) (i32.const 1)))
            (br_if $step (i32.lt_u (local.get $steps) (local.get $limit)))))
        (i32.store8
          (i32.add (local.get $x)
            (i32.mul (local.get $y) (local.get $width)))
          (local.get $steps))
        (local.set $sum (i32.add (local.get $sum) (local.get $steps)))
        (local.set $x (i32.add (local.get $x) (i32.const 1)))
        (br_if $points (i32.lt_u (local.get $x) (local.get $width))))
      (local.set $y (i32.add (local.get $y) (i32.const 1)))
      (br_if $rows (i32.lt_u (local.get $y) (local.get $height))))
    (local.get $sum)))
